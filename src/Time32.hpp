// Where time has two widths (32-bit targets), the library uses the wider one throughout. What
// objects compiled with 32-bit time call and see stands in Time32.cpp, which alone is compiled as
// they are: nothing that names a time type of the system may be declared here.
#pragma once

#include <zelkernel/config.h>

#include <cstdint>
#include <pthread.h>

namespace zel {

#if __TIMESIZE == 32

// Fills the exported starttime of 32-bit objects, if it can hold the time.
void set_start_time_in_32_bits(std::int64_t seconds, long nanoseconds);

// Calls their clock-change callback.
void report_clock_change_in_32_bits(clockid_t clock, std::int64_t seconds, long nanoseconds);

// pthread_cond_timedwait for their deadlines; defined by the module of the condition variables.
int wait_until_in_32_bits(pthread_cond_t* cond, pthread_mutex_t* mutex, std::int32_t seconds,
                          long nanoseconds);

#else

inline void set_start_time_in_32_bits(std::int64_t, long) {}
inline void report_clock_change_in_32_bits(clockid_t, std::int64_t, long) {}

#endif

} // namespace zel
