// Made late on purpose in four ways, one after the other. For each it prints how late it was by its
// own clock and how long the culprit took of that: "way late culprit", in microseconds.
// With an argument it is only busy, until it is killed.
#include "../support/kernel_thread.hpp"

#include <zelkernel/affinity.h>
#include <zelkernel/deferred_service.hpp>
#include <zelkernel/interrupt_manager.hpp>
#include <zelkernel/kcall.h>
#include <zelkernel/kernel.h>
#include <zelkernel/simulated_platform.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <numeric>
#include <pthread.h>
#include <semaphore.h>
#include <time.h>
#include <unistd.h>
#include <utility>

namespace {

using namespace zel::test;
using Controller = Drivers::Devices::InterruptProcessing::LinuxDeferredServiceController;

constexpr std::int64_t period_us = 20'000;
constexpr std::int64_t long_us = 50'000; // more than two periods
constexpr int vector = 7;
constexpr int pulses = 40;

std::atomic<std::int64_t> tick_at;         // when the latest poller began
std::array<std::int64_t, 100> first_ticks; // when the first ones did: the poller's, up to `ticks`
std::atomic<std::size_t> ticks;
std::atomic<bool> linger;
std::int64_t late_due, lingered_until;
sem_t ticked, high_may_start, mid_may_start, pulses_served, lingered;
pthread_mutex_t contended;
std::int64_t high_waited, mid_ran;

std::int64_t now_us(clockid_t clock = CLOCK_MONOTONIC) {
    timespec now;
    clock_gettime(clock, &now);
    return now.tv_sec * std::int64_t{1'000'000} + now.tv_nsec / 1000;
}

std::int64_t spin_until(std::int64_t end) {
    const std::int64_t begin = now_us();
    while (now_us() < end) {
    }
    return now_us() - begin;
}

void print(const char* way, std::int64_t late, std::int64_t culprit) {
    std::printf("%s %lld %lld\n", way, static_cast<long long>(late),
                static_cast<long long>(culprit));
}

// Nothing tells when ticks are due, but none comes early and few come very late: their periods
// begin where all of them together would be the least late.
std::int64_t period_begin() {
    const auto begin = first_ticks.begin(), end = begin + static_cast<std::ptrdiff_t>(ticks.load());
    const auto lateness = [&](std::int64_t due) {
        return std::accumulate(begin, end, std::int64_t{0}, [due](auto sum, auto at) {
            return sum + ((at - due) % period_us + period_us) % period_us;
        });
    };
    return *std::min_element(begin, end, [&](auto a, auto b) { return lateness(a) < lateness(b); });
}

// When the one after the latest is due; that one may have come a little earlier than any before.
std::int64_t next_due() {
    const std::int64_t begin = period_begin(), since = tick_at - begin + period_us / 20;
    return begin + (since / period_us + 1) * period_us;
}

// The kernel's own threads may run anywhere: they come to where the application's run.
void poll() {
    if (tick_at == 0)
        setThreadAffinityCPU0();
    tick_at = now_us();
    if (ticks < first_ticks.size()) {
        first_ticks[ticks] = tick_at;
        ++ticks;
    }
    sem_post(&ticked);
    if (late_due != 0) {
        print("poller", tick_at - late_due, lingered_until - late_due);
        late_due = 0;
        sem_post(&lingered);
    }
    if (linger.exchange(false)) {
        late_due = next_due();
        spin_until(late_due + long_us - period_us);
        lingered_until = now_us();
    }
}

std::int64_t next_tick() {
    while (sem_trywait(&ticked) == 0) {
    }
    sem_wait(&ticked);
    return tick_at;
}

// Half a period behind a tick `make_late` begins; gives from when to when the culprit ran. The next
// tick is judged.
template<typename MakeLate>
void judge_tick(const char* way, MakeLate make_late) {
    next_tick();
    const std::int64_t due = next_due();
    spin_until(due - period_us / 2);
    const auto [begin, end] = make_late(due);
    while (tick_at < due)
        sem_wait(&ticked);
    print(way, tick_at - due, end - std::max(begin, due));
}

void settle(zel_word_t, zel_word_t, zel_word_t) {}

struct Routine : Drivers::Api::InterruptProcessing::InterruptServiceRoutine,
                 Drivers::Api::InterruptProcessing::DeferredServiceRoutine {
    int served = 0;
    std::atomic<std::int64_t> began, ended;
    void isr() override {
        if (served == 0) {
            setThreadAffinityCPU0();
            Controller::getInstance()->defer(this);
            kcall_enqueue(reinterpret_cast<zel_word_t>(settle), 0, 0, 0);
        } else if (served == 1) {
            began = now_us();
        }
        spin_until(now_us() + 1000);
        ended = now_us();
        ++served;
        if (served == 1 || served == pulses)
            sem_post(&pulses_served);
    }
    void dsr() override {}
};

void spin() {
    pthread_setname_np(pthread_self(), "spinner");
    judge_tick("spin", [](std::int64_t due) {
        const std::int64_t took = spin_until(due + long_us - period_us), end = now_us();
        return std::pair{end - took, end};
    });
}

void burst() {
    static Routine routine;
    static Linux::LinuxInterruptMgr manager;
    auto* const source = manager.get(vector);
    source->connect(&routine);
    source->enable();
    // Until it has served once, the interrupt thread may be on another processor than the ticks.
    zel_simulated_raise(vector);
    sem_wait(&pulses_served);
    judge_tick("burst", [](std::int64_t) {
        for (int i = 1; i < pulses; ++i)
            zel_simulated_raise(vector);
        sem_wait(&pulses_served);
        return std::pair{routine.began.load(), routine.ended.load()};
    });
}

// The three of a lock without priority inheritance.
void low() {
    pthread_setname_np(pthread_self(), "low");
    pthread_mutex_lock(&contended);
    sem_post(&high_may_start);
    sem_post(&mid_may_start);
    spin_until(now_us() + 5000);
    pthread_mutex_unlock(&contended);
}

void mid() {
    pthread_setname_np(pthread_self(), "mid");
    sem_wait(&mid_may_start);
    // Higher threads have their ticks meanwhile.
    const std::int64_t begin = now_us(CLOCK_THREAD_CPUTIME_ID);
    spin_until(now_us() + 30'000);
    mid_ran = now_us(CLOCK_THREAD_CPUTIME_ID) - begin;
}

void high() {
    pthread_setname_np(pthread_self(), "high");
    sem_wait(&high_may_start);
    const std::int64_t begin = now_us();
    pthread_mutex_lock(&contended);
    high_waited = now_us() - begin;
    pthread_mutex_unlock(&contended);
}

void invert_priorities() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_NONE);
    pthread_mutex_init(&contended, &attr);
    KernelThread waits{Attributes{15}, high};
    KernelThread{Attributes{10}, mid};
    KernelThread{Attributes{5}, low};
    waits.join();
    print("lock", high_waited, mid_ran);
}

} // namespace

int main(int argc, char**) {
    for (sem_t* semaphore : {&ticked, &high_may_start, &mid_may_start, &pulses_served, &lingered})
        sem_init(semaphore, 0, 0);
    const KernelPriorities priorities{40, 38, 36, 0, 34, 0, 0, 50, 9};
    zel_kernel_init(priorities, period_us, 0, poll, nullptr);
    while (argc > 1) // a busy one
        usleep(100);
    usleep(300'000); // the recorder looks every tenth of a second
    on_kernel_thread(spin, 45);
    invert_priorities();
    linger = true;
    sem_wait(&lingered);
    on_kernel_thread(burst, 45); // above the interrupt thread: all pulses come before it serves one
    usleep(200'000);
}
