/* Condition variables with deadlines on the kernel's monotonic clock.
 *
 * The application's CLOCK_MONOTONIC counts from kernel start (clock.h), the system's from boot. The
 * library remembers the clock of each condition variable it meets and adds the start time to the
 * deadlines of those on CLOCK_MONOTONIC. Waiting without a deadline, signalling and broadcasting go
 * to the system.
 *
 * Memory (one small node) is taken when a condition variable is first seen, by initialisation or a
 * timed wait, and given back by pthread_cond_destroy only: destroy what you initialise. When there
 * is no memory, initialisation returns ENOMEM, and a wait on a condition variable not seen before
 * goes on as for CLOCK_REALTIME, without remembering it.
 *
 * Each call takes the library's lock of the clock map for one look-up, never while it waits; with
 * the posix locks switched off it does not. Any thread. Nothing is printed; results are the
 * system's. */
#ifndef ZELKERNEL_CONDITIONS_H
#define ZELKERNEL_CONDITIONS_H

#include <zelkernel/config.h>

#include <pthread.h>
#include <time.h>

ZEL_BEGIN_DECLS

/* pthread_cond_init. An address that is known already, because its condition variable was never
 * destroyed, keeps the clock recorded first. */
ZEL_EXPORT int __wrap_pthread_cond_init(pthread_cond_t* cond, const pthread_condattr_t* attr);

/* pthread_cond_destroy; the clock is forgotten whatever the result. */
ZEL_EXPORT int __wrap_pthread_cond_destroy(pthread_cond_t* cond);

/* pthread_cond_timedwait. `abstime` is absolute: on CLOCK_MONOTONIC as the wrapped clock_gettime
 * gives it, or on CLOCK_REALTIME (the default, and for a condition variable initialised
 * statically). */
ZEL_EXPORT int __wrap_pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex,
                                             const struct timespec* abstime)
    ZEL_TIME64_NAME("__wrap___pthread_cond_timedwait64");

ZEL_END_DECLS

#endif
