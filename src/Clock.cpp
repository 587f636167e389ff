// Sleeps that last, the kernel's view of the clocks, and guards of local statics.
#include "Time32.hpp"
#include "Uptime.hpp"

#include <zelkernel/clock.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <limits>

namespace {

int sleep_for(timespec request) {
    int result = 0;
    do {
        result = nanosleep(&request, &request);
    } while (result == -1 && errno == EINTR);
    return result;
}

timespec split(long long count, long long per_second) {
    const lldiv_t parts = std::lldiv(count, per_second);
    return {static_cast<time_t>(parts.quot),
            static_cast<long>(parts.rem * (zel::nanoseconds_per_second / per_second))};
}

} // namespace

int __wrap_sleep(unsigned int seconds) {
    // A sleep for ever by -1 must not become an error where the kernel's time has 32 bits.
    constexpr uint64_t longest = std::numeric_limits<long>::max();
    return sleep_for({static_cast<time_t>(std::min<uint64_t>(seconds, longest)), 0});
}

int __wrap_usleep(useconds_t usec) {
    return sleep_for(split(usec, 1'000'000));
}

int sleepMs(int ms) {
    return sleep_for(split(ms, 1000));
}

int __wrap_clock_gettime(clockid_t clock, timespec* tp) {
    return clock == CLOCK_MONOTONIC ? zel::read_uptime(tp) : clock_gettime(clock, tp);
}

int __wrap_clock_settime(clockid_t clock, const timespec* tp) {
    timespec before{};
    clock_gettime(clock, &before);
    const int result = clock_settime(clock, tp);
    const int error = errno;
    if (updateRTCFunc != nullptr)
        updateRTCFunc(clock, &before);
    zel::report_clock_change_in_32_bits(clock, before.tv_sec, before.tv_nsec);
    errno = error; // the callback's own is none of the caller's business
    return result;
}

// The compiler's own check of the guard byte pairs with the release: who sees 1 sees the object.
int __wrap___cxa_guard_acquire(void* guard) {
    return __atomic_load_n(static_cast<unsigned char*>(guard), __ATOMIC_ACQUIRE) == 0;
}

void __wrap___cxa_guard_release(void* guard) {
    __atomic_store_n(static_cast<unsigned char*>(guard), 1, __ATOMIC_RELEASE);
}

void __wrap___cxa_guard_abort(void*) {}
