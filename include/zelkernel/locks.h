/* Mutexes, priority ceilings, semaphores and the posix locks switch.
 *
 * Differences from POSIX: a mutex made without attributes (or with attributes from the wrapped
 * pthread_mutexattr_init) inherits priorities; semaphores are always private to the process; a
 * semaphore wait is not ended by a signal (no EINTR); ceilings are application priorities
 * (scheduling.h). A statically initialised mutex stays as the system makes it, without inheritance.
 *
 * The switch: while it is off, each function marked "gated" returns 0 at once and touches neither
 * its object nor errno, and pthread_create is refused. It is one byte, read at every call without
 * ordering. A thread that waits when it goes off goes on waiting; a mutex locked before and
 * unlocked while it is off stays locked. It is meant for phases in which one thread runs alone.
 *
 * All may be called from any thread, also before start-up (ceilings are then not shifted). They
 * print nothing, and return the system's results. */
#ifndef ZELKERNEL_LOCKS_H
#define ZELKERNEL_LOCKS_H

#include <zelkernel/config.h>

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>
#include <time.h>

ZEL_BEGIN_DECLS

ZEL_EXPORT extern uint8_t posix_locks_enabled; /* 1 at load; 0 while the switch is off */
ZEL_EXPORT extern int32_t num_semaphores;      /* 0; the library never changes it */

/* Set the switch. No lock; at once for calls that begin afterwards. */
ZEL_EXPORT void zel_enable_posix_locks(void);
ZEL_EXPORT void zel_disable_posix_locks(void);

/* pthread_mutexattr_init, then PTHREAD_PRIO_INHERIT. */
ZEL_EXPORT int __wrap_pthread_mutexattr_init(pthread_mutexattr_t* attr);

/* pthread_mutex_init; `attr` as given, or, when null, a default mutex with priority inheritance.
 * Linux knows the owner of a mutex that inherits priorities, so that even a default one answers
 * EPERM to an unlock by another thread, which would unlock an ordinary one. A second lock by the
 * owner of a default one waits for ever, and its trylock answers EBUSY; of the type
 * PTHREAD_MUTEX_ERRORCHECK it answers EDEADLK to either. */
ZEL_EXPORT int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr);

/* Gated. pthread_mutex_lock, again for as long as it returns ETIMEDOUT. Blocks. */
ZEL_EXPORT int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex);

/* Gated. The system's calls, made once; `abstime` is absolute CLOCK_REALTIME. */
ZEL_EXPORT int __wrap_pthread_mutex_timedlock(pthread_mutex_t* mutex,
                                              const struct timespec* abstime)
    ZEL_TIME64_NAME("__wrap___pthread_mutex_timedlock64");
ZEL_EXPORT int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex);
ZEL_EXPORT int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex);

/* The system's calls with ceilings in the application's numbering. `old_ceiling` may be null. When
 * the system's call fails, what it left in the result word is shifted all the same. */
ZEL_EXPORT int __wrap_pthread_mutexattr_setprioceiling(pthread_mutexattr_t* attr, int prioceiling);
ZEL_EXPORT int __wrap_pthread_mutexattr_getprioceiling(const pthread_mutexattr_t* attr,
                                                       int* prioceiling);
ZEL_EXPORT int __wrap_pthread_mutex_setprioceiling(pthread_mutex_t* mutex, int prioceiling,
                                                   int* old_ceiling);
ZEL_EXPORT int __wrap_pthread_mutex_getprioceiling(const pthread_mutex_t* mutex, int* prioceiling);

/* sem_init for this process only; `pshared` is ignored. 0, or -1 with errno (EINVAL). */
ZEL_EXPORT int __wrap_sem_init(sem_t* sem, int pshared, unsigned int value);

/* Gated. 0, or -1 with errno; restarted after signals, a timed wait with its deadline unchanged
 * (absolute CLOCK_REALTIME; ETIMEDOUT). Block. */
ZEL_EXPORT int __wrap_sem_wait(sem_t* sem);
ZEL_EXPORT int __wrap_sem_timedwait(sem_t* sem, const struct timespec* abstime)
    ZEL_TIME64_NAME("__wrap___sem_timedwait64");

/* Gated. The system's calls, made once. */
ZEL_EXPORT int __wrap_sem_trywait(sem_t* sem);
ZEL_EXPORT int __wrap_sem_post(sem_t* sem);

ZEL_END_DECLS

#endif
