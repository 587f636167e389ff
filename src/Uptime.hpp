// Time arithmetic between the system's monotonic clock and the kernel's, which starts at
// zel_kernel_init. The target has no division instruction and applications read the clock all the
// time, so nothing here divides.
#pragma once

#include <zelkernel/kernel.h>

#include <cstdint>
#include <time.h>

namespace zel {

constexpr int64_t nanoseconds_per_second = 1'000'000'000;

// starttimeInNs is the reference that counts; starttime is its quotient and remainder unless the
// application has changed one of them. Told by a multiplication.
inline bool starttime_is_split() {
    return starttimeInNs ==
           static_cast<int64_t>(starttime.tv_sec) * nanoseconds_per_second + starttime.tv_nsec;
}

// Quotient and remainder, bit by bit: the target's division routine would take no less. What calls
// it is not in a hurry: one copy will do.
[[gnu::noinline]] inline void split_nanoseconds(uint64_t ns, timespec& to) {
    uint64_t seconds = 0;
    for (int bit = 34; bit >= 0; --bit) {
        const uint64_t share = uint64_t{nanoseconds_per_second} << bit;
        if (ns < share)
            continue;
        ns -= share;
        seconds |= uint64_t{1} << bit;
    }
    to.tv_sec = static_cast<time_t>(seconds);
    to.tv_nsec = static_cast<long>(ns);
}

// CLOCK_MONOTONIC less the start time.
inline int read_uptime(timespec* ts) {
    const int result = clock_gettime(CLOCK_MONOTONIC, ts);
    if (result != 0) [[unlikely]]
        return result;
    if (!starttime_is_split()) [[unlikely]] {
        const int64_t now = static_cast<int64_t>(ts->tv_sec) * nanoseconds_per_second + ts->tv_nsec;
        split_nanoseconds(static_cast<uint64_t>(now) - static_cast<uint64_t>(starttimeInNs), *ts);
        return 0;
    }
    ts->tv_sec -= starttime.tv_sec;
    ts->tv_nsec -= starttime.tv_nsec;
    if (ts->tv_nsec < 0) {
        ts->tv_nsec += nanoseconds_per_second;
        --ts->tv_sec;
    }
    return 0;
}

// Wraps, since a deadline of the application may be as far away as the type goes.
inline time_t add_seconds(time_t a, time_t b) {
    return static_cast<time_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

// A deadline on the kernel's clock as a deadline on CLOCK_MONOTONIC.
inline timespec to_monotonic(const timespec& uptime) {
    timespec result = uptime;
    const bool normalised = uptime.tv_nsec >= 0 && uptime.tv_nsec < nanoseconds_per_second;
    if (!normalised || !starttime_is_split()) [[unlikely]] {
        split_nanoseconds(
            static_cast<uint64_t>(starttimeInNs) + static_cast<uint64_t>(uptime.tv_nsec), result);
        result.tv_sec = add_seconds(result.tv_sec, uptime.tv_sec);
        return result;
    }
    result.tv_sec = add_seconds(result.tv_sec, starttime.tv_sec);
    result.tv_nsec += starttime.tv_nsec;
    if (result.tv_nsec >= nanoseconds_per_second) {
        result.tv_nsec -= nanoseconds_per_second;
        result.tv_sec = add_seconds(result.tv_sec, 1);
    }
    return result;
}

} // namespace zel
