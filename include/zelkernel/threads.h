/* Thread creation and the thread registry.
 *
 * The application calls pthread_create; linked with wrapping, the call lands in
 * __wrap_pthread_create. Differences from POSIX (pthread_create(3p)):
 *  - threads are always detached, SCHED_FIFO with explicit scheduling, on CPU 0, on a stack of at
 *    least 16384 bytes (also the default);
 *  - pthread_join and pthread_detach are the system's, and of no use: they fail with EINVAL while
 *    the thread runs, and are undefined once it has ended;
 *  - of the caller's attributes only the stack and the priority are used;
 *  - `thread` may be null.
 *
 * The registry holds the id of every thread made here, from its creation until it ends: by
 * returning, by pthread_exit or by cancellation. An id is entered before the creation call returns
 * and never outlives its thread, in whatever order creator and thread run. Threads that
 * __zel_pure_pthread_create starts with a start routine of their own (the kernel-call thread, the
 * interrupt thread) are never removed: they are meant to run for ever. The main thread and threads
 * made by the system's own call are never in it. */
#ifndef ZELKERNEL_THREADS_H
#define ZELKERNEL_THREADS_H

#include <zelkernel/config.h>

#include <pthread.h>

ZEL_BEGIN_DECLS

/* Replaces pthread_create.
 *
 * attr  may be null: the thread then gets the creator's own priority (glibc's rule for explicit
 *       scheduling without a parameter; EINVAL when that is not a SCHED_FIFO priority). A priority
 *       put in with the wrapped pthread_attr_setschedparam is already a Linux priority here and is
 *       taken over unchanged; attributes without one hold 0, which SCHED_FIFO refuses (a reported
 *       step) and which leaves the creator's priority.
 *
 * Returns 0, or an error number, which errno then holds too; `*thread` is then 0 and one line on
 * standard error tells the failing step:
 *   EPERM   the posix locks are switched off (locks.h); nothing is tried
 *   ENOMEM  no memory for the start block or the registry entry
 *   else    the system's result (EAGAIN, EINVAL, EPERM without real-time rights)
 * An attribute step that fails is reported likewise, and the creation goes on.
 * Takes the registry lock across the system's call, so that creations follow one another. Before
 * start-up it works the same, but priorities mean nothing yet. Any thread. */
ZEL_EXPORT int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr,
                                     void* (*start_routine)(void*), void* arg);

/* Creates a thread with exactly these attributes and registers it. Returns 0, or the system's error
 * number (ENOMEM when the registry entry cannot be had) with errno holding it, `*thread` untouched
 * and no message. The id is in the registry when the call returns. */
ZEL_EXPORT int __zel_pure_pthread_create(pthread_t* thread, const pthread_attr_t* attr,
                                         void* (*start_routine)(void*), void* arg);

/* What thread_func is given: two words in one malloc() block. */
typedef struct ThreadStartBlock {
    void* (*start_routine)(void*);
    void* arg;
} ThreadStartBlock;

/* Start routine of the threads above: releases `block` with free(), pins the thread to CPU 0, runs
 * the routine and takes the thread's id out of the registry. Returns null; the routine's result is
 * dropped. */
ZEL_EXPORT void* thread_func(void* block);

/* Copies the smallest `max_ids` registered ids, in ascending order, to `ids`; `*count` tells how
 * many there were. A snapshot under the registry lock; returns the unlock's result, 0. */
ZEL_EXPORT int getCopyOfCurrentPthreadIds(pthread_t* ids, unsigned int max_ids,
                                          unsigned int* count);

ZEL_END_DECLS

#endif
