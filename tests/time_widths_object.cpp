#include "time_widths_object.hpp"

#include <zelkernel/kernel.h>

#include <ctime>
#include <utility>

namespace {

constexpr int64_t second = 1'000'000'000;

int64_t ns(const timespec& time) {
    return time.tv_sec * second + time.tv_nsec;
}

int64_t last_reported;
void note(clockid_t, timespec* before) {
    last_reported = ns(*before);
}

} // namespace

const ApplicationObject ZEL_OBJECT = {
    .width = sizeof(time_t) * 8,
    .start_kernel =
        [] {
            zel_kernel_init({1, 1, 1, 0, 1, 0, 0, 50, 1}, 1000, 0, nullptr, note);
        },
    .take_callback = [] { updateRTCFunc = note; },
    .reported = [] { return std::exchange(last_reported, 0); },
    .set_clock =
        [] {
            const timespec anything{1, 0};
            return clock_settime(CLOCK_MONOTONIC, &anything);
        },
    .start_time = [] { return ns(starttime); },
    .uptime =
        [] {
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            return ns(now);
        },
    .wait_until =
        [](pthread_cond_t* cond, pthread_mutex_t* mutex, int64_t deadline) {
            const timespec time{static_cast<time_t>(deadline / second),
                                static_cast<long>(deadline % second)};
            return pthread_cond_timedwait(cond, mutex, &time);
        },
};
