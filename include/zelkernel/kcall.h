/* The kernel-call queue: one thread, "KCall", in which kernel work runs serialised.
 *
 * On every tick it runs the run poller (kcall_mutex held) and then the queued calls in the order in
 * which they were queued (kcall_mutex released during each); calls queued meanwhile run in the same
 * pass. Ticks that pass while the thread is busy are not made up. The thread runs until the process
 * ends. The lock is a priority-inheriting mutex that the posix locks switch does not touch.
 *
 * A call's function and arguments are machine words: 32 bits on the target. */
#ifndef ZELKERNEL_KCALL_H
#define ZELKERNEL_KCALL_H

#include <zelkernel/config.h>
#include <zelkernel/kernel.h>

#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <time.h>

ZEL_BEGIN_DECLS

typedef struct KernelCall {
    zel_word_t function; /* void (*)(zel_word_t, zel_word_t, zel_word_t) */
    zel_word_t arguments[3];
} KernelCall;

#define ZEL_KCALL_ENTRIES 1024

/* State, all zero before kcall_initialize_queue. The application may read it with kcall_mutex held.
 * A nonzero KCallLevel that the application sets makes ticks do nothing at all. */
ZEL_EXPORT extern KernelCall KCallList[ZEL_KCALL_ENTRIES]; /* ring, at most 1023 pending */
ZEL_EXPORT extern KernelCall* KCallIn;                     /* the entry written last */
ZEL_EXPORT extern KernelCall* KCallOut;                    /* the entry run last */
ZEL_EXPORT extern uint8_t KCallLevel;                      /* nonzero while queued calls run */
ZEL_EXPORT extern zel_run_poller_func KCallRunPoller;
ZEL_EXPORT extern uint32_t KCall_nsTickPeriod; /* nanoseconds, modulo 2^32 */
ZEL_EXPORT extern pthread_mutex_t kcall_mutex;
ZEL_EXPORT extern timer_t timer_id;
ZEL_EXPORT extern struct sigevent sev;
ZEL_EXPORT extern sigset_t mask;
ZEL_EXPORT extern struct itimerspec its ZEL_TIME64_NAME("its_time64"); /* stays zero */

/* Called by zel_kernel_init, once: sets up the queue and starts its thread at Linux priority
 * kcall_thread_priority + linux_base_priority. The tick signal SIGRTMIN is blocked in that thread
 * before the timer can fire. Returns the thread's id. Stops the process through zel_fatal when the
 * mutex or the thread cannot be made. tick_period_us: see zel_kernel_init. */
ZEL_EXPORT pthread_t kcall_initialize_queue(zel_run_poller_func run_poller,
                                            uint32_t tick_period_us);

/* Queues a call. Returns 0 always: when 1023 calls are pending, the call is dropped without a
 * report. Constant time, no allocation. Any thread, queued calls included, but not the run poller
 * (it holds the lock, which is not recursive) and not before start-up. */
ZEL_EXPORT int kcall_enqueue(zel_word_t function, zel_word_t a1, zel_word_t a2, zel_word_t a3);

/* Puts Empty in the place of every pending call whose four words equal these. Does nothing while
 * queued calls are being run (also when called from one). Returns 0 always. Callers as above. */
ZEL_EXPORT int kcall_dequeue(zel_word_t function, zel_word_t a1, zel_word_t a2, zel_word_t a3);

/* Body of the kernel-call thread; not for the application. */
ZEL_NORETURN ZEL_EXPORT void process(void);

/* Does nothing: what a cancelled call runs. */
ZEL_EXPORT void Empty(zel_word_t a1, zel_word_t a2, zel_word_t a3);

ZEL_END_DECLS

#endif
