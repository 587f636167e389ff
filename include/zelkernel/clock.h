/* Sleeps, clocks, and the guards of function-local static objects. No state, no lock, any thread.
 */
#ifndef ZELKERNEL_CLOCK_H
#define ZELKERNEL_CLOCK_H

#include <zelkernel/config.h>

#include <time.h>
#include <unistd.h>

ZEL_BEGIN_DECLS

/* Sleep for the whole time: a sleep that a signal cuts short is resumed for what remained. Return 0
 * after it (sleep too: never a remainder), or -1 with errno; a negative `ms` gives EINVAL. usec may
 * be any 32-bit value, a second and more included; on a 32-bit target the longest sleep has
 * 2147483647 seconds. */
ZEL_EXPORT int __wrap_sleep(unsigned int seconds);
ZEL_EXPORT int __wrap_usleep(useconds_t usec);
ZEL_EXPORT int sleepMs(int ms);

/* clock_gettime, with CLOCK_MONOTONIC counting from zel_kernel_init (before it: from boot). Other
 * clocks are the system's. 0, or -1 with errno: with 32-bit time EOVERFLOW, and *tp untouched, when
 * the clock has passed January 2038. */
ZEL_EXPORT int __wrap_clock_gettime(clockid_t clock, struct timespec* tp)
    ZEL_TIME64_NAME("__wrap___clock_gettime64");

/* clock_settime; afterwards, also when it failed, the clock-change callback given to
 * zel_kernel_init runs in this thread with the clock and the time it showed before, whichever width
 * of time the caller and the callback are compiled with. Returns the system's result, with errno as
 * the system's call left it. */
ZEL_EXPORT int __wrap_clock_settime(clockid_t clock, const struct timespec* tp)
    ZEL_TIME64_NAME("__wrap___clock_settime64");

/* The C++ ABI's guards, without a lock: acquire gives 1 while the first byte of the guard is 0, and
 * release sets it. Two threads that reach an uninitialised local static at once may both initialise
 * it; initialise such objects before starting threads. Nobody ever waits here. */
ZEL_EXPORT int __wrap___cxa_guard_acquire(void* guard);
ZEL_EXPORT void __wrap___cxa_guard_release(void* guard);
ZEL_EXPORT void __wrap___cxa_guard_abort(void* guard);

ZEL_END_DECLS

#endif
