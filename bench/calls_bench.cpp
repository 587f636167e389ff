// Wrapped calls and kcall_enqueue beside what they stand on.
// Run with --benchmark_enable_random_interleaving=true: only ratios of one run mean something.
#include "Measure.hpp"

#include <zelkernel/clock.h>
#include <zelkernel/conditions.h>
#include <zelkernel/kcall.h>
#include <zelkernel/locks.h>

#include <array>
#include <benchmark/benchmark.h>

namespace {

constexpr std::size_t known_conditions = 1000;
constexpr std::size_t calls_per_batch = 1000;

pthread_mutex_t mutex;
sem_t semaphore;
std::array<pthread_cond_t, known_conditions> conditions;
pthread_cond_t system_condition;
std::array<KernelCall, ZEL_KCALL_ENTRIES> ring;

template<auto lock, auto unlock>
void lock_pair(benchmark::State& state) {
    for (auto _ : state) {
        lock(&mutex);
        unlock(&mutex);
    }
}

template<auto post, auto wait>
void semaphore_pair(benchmark::State& state) {
    for (auto _ : state) {
        post(&semaphore);
        wait(&semaphore);
    }
}

template<auto gettime>
void read_clock(benchmark::State& state) {
    timespec now;
    for (auto _ : state) {
        gettime(CLOCK_MONOTONIC, &now);
        benchmark::DoNotOptimize(now);
    }
}

// The library's conditions in a fixed disorder, so that the lookups do not all take one way.
template<auto timedwait>
void wait_expired(benchmark::State& state, pthread_cond_t* first, std::size_t count) {
    constexpr timespec expired{0, 1};
    std::size_t i = 0;
    pthread_mutex_lock(&mutex);
    for (auto _ : state) {
        i = (i + 619) % count;
        timedwait(first + i, &mutex, &expired);
    }
    pthread_mutex_unlock(&mutex);
}

void per_call(benchmark::State& state) {
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(calls_per_batch));
}

// The ring is emptied between the batches: a full one drops calls.
void enqueue(benchmark::State& state) {
    while (state.KeepRunning()) {
        for (std::size_t i = 0; i < calls_per_batch; ++i)
            kcall_enqueue(reinterpret_cast<zel_word_t>(&Empty), i, 2, 3);
        pthread_mutex_lock(&kcall_mutex);
        KCallOut = KCallIn;
        pthread_mutex_unlock(&kcall_mutex);
    }
    per_call(state);
}

// A function with the same arguments, as kcall_enqueue is one.
[[gnu::noipa]] void store_under_lock(std::size_t entry, zel_word_t function, zel_word_t a1,
                                     zel_word_t a2, zel_word_t a3) {
    pthread_mutex_lock(&mutex);
    ring[entry] = {function, {a1, a2, a3}};
    pthread_mutex_unlock(&mutex);
}

void enqueue_reference(benchmark::State& state) {
    while (state.KeepRunning()) {
        for (std::size_t i = 0; i < calls_per_batch; ++i)
            store_under_lock(i, reinterpret_cast<zel_word_t>(&Empty), i, 2, 3);
    }
    per_call(state);
}

void initialize_objects() {
    __wrap_pthread_mutex_init(&mutex, nullptr);
    sem_init(&semaphore, 0, 0);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&system_condition, &attr);
    for (auto& condition : conditions)
        __wrap_pthread_cond_init(&condition, &attr);
}

void leave_real_time() {
    const sched_param param{0};
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &param);
}

} // namespace

int main(int argc, char** argv) {
    bench::start_kernel(4'000'000); // a tick that hardly ever comes
    leave_real_time();
    initialize_objects();
    using benchmark::RegisterBenchmark;
    RegisterBenchmark("mutex lock + unlock/ours",
                      lock_pair<__wrap_pthread_mutex_lock, __wrap_pthread_mutex_unlock>);
    RegisterBenchmark("mutex lock + unlock/reference",
                      lock_pair<pthread_mutex_lock, pthread_mutex_unlock>);
    RegisterBenchmark("semaphore post + wait/ours",
                      semaphore_pair<__wrap_sem_post, __wrap_sem_wait>);
    RegisterBenchmark("semaphore post + wait/reference", semaphore_pair<sem_post, sem_wait>);
    RegisterBenchmark("clock_gettime, monotonic/ours", read_clock<__wrap_clock_gettime>);
    RegisterBenchmark("clock_gettime, monotonic/reference", read_clock<clock_gettime>);
    RegisterBenchmark("cond_timedwait, expired, 1,000 known/ours",
                      wait_expired<__wrap_pthread_cond_timedwait>, conditions.data(),
                      conditions.size());
    RegisterBenchmark("cond_timedwait, expired, 1,000 known/reference",
                      wait_expired<pthread_cond_timedwait>, &system_condition, std::size_t{1});
    RegisterBenchmark("kcall_enqueue/ours", enqueue);
    RegisterBenchmark("kcall_enqueue/reference", enqueue_reference);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    std::_Exit(EXIT_SUCCESS);
}
