// Condition variables: deadlines on CLOCK_MONOTONIC are moved from the kernel's time base to the
// system's.
//
// cond_clock_map remembers the clock of each condition variable; cond_clock_map_mutex guards it.
// Threads: any. No other lock is taken while it is held, and nobody waits under it.
#include "NeverDestroyed.hpp"
#include "PosixLock.hpp"
#include "Time32.hpp"
#include "Uptime.hpp"

#include <zelkernel/conditions.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <new>

namespace {

struct CondClockEntry {
    pthread_cond_t* cond;
    clockid_t clock;
};
using CondClockMap = std::map<std::uintptr_t, CondClockEntry>;

zel::NeverDestroyed<CondClockMap> cond_clock_map;

zel::PosixMutex cond_clock_map_mutex;

std::uintptr_t key_of(const pthread_cond_t* cond) {
    return reinterpret_cast<std::uintptr_t>(cond);
}

clockid_t clock_of(const pthread_condattr_t* attr) {
    clockid_t clock = CLOCK_REALTIME;
    if (attr != nullptr)
        pthread_condattr_getclock(attr, &clock);
    return clock;
}

// The clock of `cond`. One that is not known is on CLOCK_REALTIME, and is remembered as such if
// there is memory for it.
clockid_t known_clock(pthread_cond_t* cond) {
    const zel::PosixLock lock{cond_clock_map_mutex};
    try {
        const auto entry =
            cond_clock_map->try_emplace(key_of(cond), CondClockEntry{cond, CLOCK_REALTIME}).first;
        return entry->second.clock;
    } catch (const std::bad_alloc&) {
        return CLOCK_REALTIME;
    }
}

// One copy for both widths of time.
[[gnu::noinline]] int wait_until(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                 const timespec& abstime, bool wraps_at_32_bits) {
    if (known_clock(cond) != CLOCK_MONOTONIC)
        return pthread_cond_timedwait(cond, mutex, &abstime);
    timespec deadline = zel::to_monotonic(abstime);
    if (wraps_at_32_bits)
        deadline.tv_sec = static_cast<int32_t>(deadline.tv_sec);
    return pthread_cond_timedwait(cond, mutex, &deadline);
}

} // namespace

int __wrap_pthread_cond_init(pthread_cond_t* cond, const pthread_condattr_t* attr) {
    const zel::PosixLock lock{cond_clock_map_mutex};
    try {
        cond_clock_map->try_emplace(key_of(cond), CondClockEntry{cond, clock_of(attr)});
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    return pthread_cond_init(cond, attr);
}

int __wrap_pthread_cond_destroy(pthread_cond_t* cond) {
    const zel::PosixLock lock{cond_clock_map_mutex};
    const int result = pthread_cond_destroy(cond);
    cond_clock_map->erase(key_of(cond));
    return result;
}

int __wrap_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                  const timespec* abstime) {
    return wait_until(cond, mutex, *abstime, false);
}

#if __TIMESIZE == 32
int zel::wait_until_in_32_bits(pthread_cond_t* cond, pthread_mutex_t* mutex, int32_t seconds,
                               long nanoseconds) {
    // What is moved wraps as the caller's type does, unless the kernel itself was started beyond
    // what that can hold.
    constexpr int64_t end_of_32_bits = (int64_t{1} << 31) * zel::nanoseconds_per_second;
    return wait_until(cond, mutex, {seconds, nanoseconds}, starttimeInNs < end_of_32_bits);
}
#endif
