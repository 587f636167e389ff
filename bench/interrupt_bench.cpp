// From the raising of an interrupt to the first instruction of its service routine:
//   interrupt_bench ours N        through the library's interrupt thread
//   interrupt_bench reference N   to a bare thread that reads the same pulse descriptor
// One process each: all readers of a process's pulse descriptors draw the same pulses.
#include "Measure.hpp"

#include <zelkernel/interrupt_manager.hpp>
#include <zelkernel/interrupt_pulse.h>
#include <zelkernel/locks.h>
#include <zelkernel/simulated_platform.h>

#include <string_view>
#include <unistd.h>

namespace {

constexpr int vector = 7;

sem_t done;
std::int64_t begin;
std::int64_t end;

void note_arrival() {
    end = bench::now_ns();
    sem_post(&done);
}

class Routine : public Drivers::Api::InterruptProcessing::InterruptServiceRoutine {
public:
    void isr() override { note_arrival(); }
};

void connect_ours() {
    static Routine routine;
    Linux::LinuxInterruptMgr manager;
    const cpu_set_t cpu0 = bench::one_cpu(0);
    pthread_setaffinity_np(manager.getPthreadId(), sizeof cpu0, &cpu0);
    auto* const source = manager.get(vector);
    source->connect(&routine);
    source->enable();
}

// A fresh line: what was raised before is dropped.
void attach_reference() {
    static int source;
    detachLinuxInterruptSource(vector);
    std::free(attachLinuxInterruptSource(vector, 1, &source));
    enableLinuxInterruptSource(vector);
}

void* read_pulses(void*) {
    const int fd = openLinuxInterruptPulseFd();
    for (;;) {
        std::uint64_t token;
        if (read(fd, &token, sizeof token) == sizeof token)
            note_arrival();
    }
}

} // namespace

int main(int argc, char** argv) {
    bench::require(argc == 3, "usage: interrupt_bench ours|reference N");
    const bool is_ours = std::string_view{argv[1]} == "ours";
    sem_init(&done, 0, 0);
    bench::start_kernel(1'000'000);
    bench::pin_to_cpu0();
    if (is_ours) {
        connect_ours();
    } else {
        bench::start_thread(bench::fifo_attributes(bench::interrupt_priority, 0), read_pulses,
                            nullptr);
    }
    for (int i = 0; i < std::atoi(argv[2]); ++i) {
        if (!is_ours)
            attach_reference();
        usleep(200);
        begin = bench::now_ns();
        zel_simulated_raise(vector);
        __wrap_sem_wait(&done);
        bench::report("interrupt pulse to service routine", argv[1],
                      static_cast<double>(end - begin));
    }
    std::fflush(stdout);
    std::_Exit(EXIT_SUCCESS);
}
