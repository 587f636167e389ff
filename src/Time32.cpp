// The entry points and exported state of objects compiled with 32-bit time, on targets where there
// is 64-bit time, too. Each call becomes the one with 64-bit time, so that the library meets the
// system with 64-bit time alone; results come back as far as 32 bits can hold them.
#include "Time32.hpp"

#include "PosixLocksSwitch.hpp"

#include <zelkernel/clock.h>
#include <zelkernel/conditions.h>
#include <zelkernel/kcall.h>
#include <zelkernel/kernel.h>
#include <zelkernel/locks.h>
#include <zelkernel/system.h>

#include <cerrno>
#include <cstdint>
#include <limits>

static_assert(sizeof(timespec) == 8);

extern "C" {
timespec starttime;
zel_update_rtc_func updateRTCFunc;
itimerspec its;

// What the public headers declare for 64-bit time.
struct Timespec64 {
    std::int64_t tv_sec;
    long tv_nsec;
    int : 32;
};
int __wrap___clock_gettime64(clockid_t clock, Timespec64* tp);
int __wrap___clock_settime64(clockid_t clock, const Timespec64* tp);
int __wrap___pthread_mutex_timedlock64(pthread_mutex_t* mutex, const Timespec64* abstime);
int __wrap___sem_timedwait64(sem_t* sem, const Timespec64* abstime);
int zel_get_uptime_time64(Timespec64* ts);
int zel_kernel_init_time64(KernelPriorities priorities, uint32_t tick_period_us, uint32_t reserved,
                           zel_run_poller_func run_poller, void* update_rtc_func);
}

namespace {

Timespec64 widened(const timespec& time) {
    return {time.tv_sec, time.tv_nsec};
}

bool fits(std::int64_t seconds) {
    return static_cast<time_t>(seconds) == seconds;
}

// Seconds that do not fit wrap.
timespec narrowed(const Timespec64& time) {
    return {static_cast<time_t>(time.tv_sec), time.tv_nsec};
}

} // namespace

namespace zel {

void set_start_time_in_32_bits(std::int64_t seconds, long nanoseconds) {
    if (fits(seconds))
        starttime = {static_cast<time_t>(seconds), nanoseconds};
}

void report_clock_change_in_32_bits(clockid_t clock, std::int64_t seconds, long nanoseconds) {
    if (updateRTCFunc == nullptr)
        return;
    timespec before{};
    if (fits(seconds))
        before = {static_cast<time_t>(seconds), nanoseconds};
    updateRTCFunc(clock, &before);
}

} // namespace zel

int __wrap_clock_gettime(clockid_t clock, timespec* tp) {
    Timespec64 time;
    const int result = __wrap___clock_gettime64(clock, &time);
    if (result != 0)
        return result;
    if (clock != CLOCK_MONOTONIC && !fits(time.tv_sec)) {
        errno = EOVERFLOW;
        return -1;
    }
    *tp = narrowed(time);
    return 0;
}

int __wrap_clock_settime(clockid_t clock, const timespec* tp) {
    const Timespec64 time = widened(*tp);
    return __wrap___clock_settime64(clock, &time);
}

// The gated calls read no deadline while the posix locks switch is off.
int __wrap_pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* abstime) {
    if (!zel::posix_locks_are_on())
        return 0;
    const Timespec64 deadline = widened(*abstime);
    return __wrap___pthread_mutex_timedlock64(mutex, &deadline);
}

int __wrap_sem_timedwait(sem_t* sem, const timespec* abstime) {
    if (!zel::posix_locks_are_on())
        return 0;
    const Timespec64 deadline = widened(*abstime);
    return __wrap___sem_timedwait64(sem, &deadline);
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                  const timespec* abstime) {
    return zel::wait_until_in_32_bits(cond, mutex, abstime->tv_sec, abstime->tv_nsec);
}

int zel_get_uptime(timespec* ts) {
    Timespec64 uptime;
    const int result = zel_get_uptime_time64(&uptime);
    if (result == 0)
        *ts = narrowed(uptime);
    return result;
}

int zel_kernel_init(KernelPriorities priorities, uint32_t tick_period_us, uint32_t reserved,
                    zel_run_poller_func run_poller, zel_update_rtc_func update_rtc_func) {
    if (!initialized)
        updateRTCFunc = update_rtc_func;
    return zel_kernel_init_time64(priorities, tick_period_us, reserved, run_poller, nullptr);
}
