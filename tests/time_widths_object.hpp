#pragma once

#include <cstdint>
#include <pthread.h>

// An object of an application, compiled with one of the two widths of time. Times are nanoseconds.
struct ApplicationObject {
    int width;
    void (*start_kernel)();  // with a clock-change callback of this width
    void (*take_callback)(); // without a start
    int64_t (*reported)();   // to the callback, since it was last asked; 0: nothing
    int (*set_clock)();      // fails
    int64_t (*start_time)();
    int64_t (*uptime)();
    int (*wait_until)(pthread_cond_t* cond, pthread_mutex_t* mutex, int64_t deadline);
};

extern const ApplicationObject object32, object64;
