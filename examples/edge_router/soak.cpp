#include "soak.hpp"

#include "checks.hpp"
#include "lateness.hpp"
#include "realtime.hpp"
#include "soak_network_load.hpp"
#include "soak_resources.hpp"
#include "soak_stack.hpp"
#include "soak_thread_load.hpp"
#include "soak_watch.hpp"
#include "stop_signals.hpp"

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <unistd.h>
#include <zelkernel/interrupt_manager.hpp>
#include <zelkernel/simulated_platform.h>

namespace {

using soak::Resources;

constexpr unsigned most_faults = 20; // then the run ends early
constexpr std::size_t memory_margin = std::size_t{4} << 20;

template<typename Done>
bool wait_until(Done done, int seconds) {
    for (int attempt = 0; attempt < 100 * seconds && !done(); ++attempt) {
        usleep(10'000);
    }
    return done();
}

// The library's own threads are part of the start: one interrupt proves that theirs runs.
void start_interrupts() {
    static struct : Drivers::Api::InterruptProcessing::InterruptServiceRoutine {
        void isr() override { served = true; }
        std::atomic<bool> served{false};
    } first;
    constexpr int vector = 1;
    Linux::LinuxInterruptMgr manager;
    manager.get(vector)->connect(&first);
    manager.get(vector)->enable();
    zel_simulated_raise(vector);
    wait_until([] { return first.served.load(); }, 10);
}

// Waits for the end of the run; the resident memory of the time when all had been in use for a
// while, 0 when it did not come to that.
std::size_t keep_running(long seconds) {
    std::size_t memory = 0;
    const std::int64_t start = now_ns(), end = start + seconds * 1'000'000'000LL;
    const std::int64_t warmed_up = start + (end - start) / 4;
    while (now_ns() < end && soak::faults() < most_faults) {
        if (stop_requested_within(50)) {
            return memory;
        }
        if (memory == 0 && now_ns() > warmed_up) {
            memory = soak::resident_memory();
        }
    }
    return memory;
}

void end_load(Checks& checks) {
    finish_realtime(checks);
    const bool ended =
        wait_until([] { return soak::network_load_ended() && soak::thread_load_ended(); }, 120);
    if (!ended) {
        soak::fault("the load does not end: a thread hangs or a kernel call was lost");
    }
    soak::finish_network_load();
}

// What was destroyed last is deleted by the receive thread, a little later.
void compare(const Resources& start, std::size_t memory) {
    const bool is_back = wait_until([&] { return is_back_at(start, soak::resources_now()); }, 20);
    const std::string now = difference(start, soak::resources_now());
    const std::size_t memory_now = soak::resident_memory();
    std::printf("\nAt the end: %s, memory %zu KiB (%zu after the warm-up)\n", now.c_str(),
                memory_now / 1024, memory / 1024);
    if (!is_back) {
        soak::fault("something is left behind");
    }
    if (soak::buffers_out() != 0) {
        soak::fault(text("%ld packet buffers are left behind", soak::buffers_out()));
    }
    if (memory != 0 && memory_now > memory + memory_margin) {
        soak::fault("the memory grows");
    }
}

void print_verdict(bool held, long seconds) {
    const soak::Figures& f = soak::figures;
    std::printf(
        "The IP stack beside all this: longest send %.3f ms, longest time without a packet "
        "received %.3f ms (the receive thread also runs the commands that delete devices)\n",
        static_cast<double>(f.longest_send_ns) / 1e6, static_cast<double>(f.longest_gap_ns) / 1e6);
    std::printf("soak: %s: %ld s, %" PRIu64 " packets echoed (%" PRIu64 " MB), %" PRIu64
                " sent to coming and going devices, %" PRIu32 " devices in %" PRIu32
                " instances made and destroyed, %" PRIu32 " settings changed, %" PRIu32
                " threads; %u faults\n",
                held ? "PASSED" : "FAILED", seconds, f.packets.load(), f.bytes / 1'000'000,
                f.strays.load(), f.devices.load(), f.instances.load(), f.settings.load(),
                f.threads.load(), soak::faults());
}

} // namespace

int soak::run(long seconds) {
    std::printf("Soaking for %ld s ...\n", seconds);
    start_interrupts();
    soak::start_echo();
    const Resources start = soak::resources_now();
    soak::start_network_load();
    soak::start_thread_load();
    start_realtime();
    const std::size_t memory = keep_running(seconds);
    const bool cut_short = stop_requested();
    soak::stop(cut_short);

    Checks checks;
    end_load(checks);
    if (cut_short) {
        std::printf("\nInterrupted. Nothing is left behind.\n");
        return 130;
    }
    compare(start, memory);
    const bool held = checks.print_summary() && soak::faults() == 0;
    print_verdict(held, seconds);
    return held ? 0 : 1;
}
