// From the creation call to the first instruction of the thread's routine, turn by turn with the
// system's call with the same attributes and affinity, prepared beforehand.
#include "Measure.hpp"

#include <zelkernel/locks.h>
#include <zelkernel/scheduling.h>
#include <zelkernel/threads.h>

namespace {

constexpr int application_priority = 5;
constexpr const char* path = "thread creation until its routine runs";

sem_t done;
std::int64_t begin;
std::int64_t end;

void* routine(void*) {
    end = bench::now_ns();
    sem_post(&done);
    return nullptr;
}

template<auto create>
void measure(const pthread_attr_t& attr, const char* side) {
    pthread_t thread;
    begin = bench::now_ns();
    create(&thread, &attr, routine, nullptr);
    __wrap_sem_wait(&done);
    bench::report(path, side, static_cast<double>(end - begin));
}

pthread_attr_t application_attributes() {
    pthread_attr_t attr;
    __wrap_pthread_attr_init(&attr);
    pthread_attr_setschedpolicy(&attr, SCHED_FIFO);
    const sched_param param{application_priority};
    __wrap_pthread_attr_setschedparam(&attr, &param);
    return attr;
}

} // namespace

// The creating thread is an application's: FIFO, on processor 0, below the threads it makes.
int main() {
    sem_init(&done, 0, 0);
    bench::start_kernel(1000);
    bench::pin_to_cpu0();
    const pthread_attr_t ours = application_attributes();
    const pthread_attr_t reference =
        bench::fifo_attributes(bench::linux_priority(application_priority), 0);
    for (int turn = 0; turn < bench::turns(1500); ++turn) {
        measure<__wrap_pthread_create>(ours, "ours");
        measure<pthread_create>(reference, "reference");
    }
    std::fflush(stdout);
    std::_Exit(EXIT_SUCCESS);
}
