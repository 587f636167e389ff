/* Kernel start-up, process-wide kernel state, the fatal stop and context queries. */
#ifndef ZELKERNEL_KERNEL_H
#define ZELKERNEL_KERNEL_H

#include <zelkernel/config.h>

#include <pthread.h>
#include <stdint.h>
#include <time.h>

ZEL_BEGIN_DECLS

/* The kernel's priorities. Words 0 to 4 are relative to `linux_base_priority`: their sum with it is
 * a Linux SCHED_FIFO priority. Words 5 to 8 define the application's numbering, see scheduling.h.
 */
typedef struct KernelPriorities {
    int32_t interrupt_lock_priority;   /* ceiling of interrupts_disabled_mutex */
    int32_t interrupt_thread_priority; /* the interrupt thread */
    int32_t kcall_thread_priority;     /* the kernel-call thread */
    int32_t reserved_priority;         /* kept, never read */
    int32_t timer_priority;            /* result of zel_timer_priority */
    int32_t app_base_priority;         /* application priority that equals linux_base_priority */
    int32_t app_min_priority;          /* lowest application priority */
    int32_t app_max_priority;          /* highest application priority */
    int32_t linux_base_priority;       /* passed in as an offset; start-up adds the caller's own
                                          SCHED_FIFO priority */
} KernelPriorities;

/* Called after every clock_settime of the application, in the thread that set the clock, whether or
 * not the clock could be set: the clock, and the time it showed just before. On a 32-bit target
 * either width of time has a callback (updateRTCFunc) of its own, null unless start-up was called
 * with that width or the application sets it; one with 32-bit time is given 0 for a time that its
 * type cannot hold. */
typedef void (*zel_update_rtc_func)(clockid_t clock, struct timespec* before);

/* Run on every tick in the kernel-call thread, see kcall.h. */
typedef void (*zel_run_poller_func)(void);

/* State. The application may read it; the library writes it during zel_kernel_init only, and no
 * lock guards it. All zero (null) until then. */
ZEL_EXPORT extern KernelPriorities kernel_priorities;
ZEL_EXPORT extern uint8_t priorities_initialized; /* 1 once kernel_priorities is final */
ZEL_EXPORT extern uint8_t initialized;            /* 1 once zel_kernel_init has finished */
ZEL_EXPORT extern struct timespec starttime ZEL_TIME64_NAME("starttime_time64"); /* at start-up:
                                     CLOCK_MONOTONIC */
ZEL_EXPORT extern int64_t starttimeInNs; /* the same in nanoseconds */
ZEL_EXPORT extern zel_update_rtc_func updateRTCFunc ZEL_TIME64_NAME("updateRTCFunc_time64");
ZEL_EXPORT extern pthread_mutex_t interrupts_disabled_mutex; /* for the application: recursive,
                                     priority ceiling; the library never locks it */
ZEL_EXPORT extern uint8_t useInterruptMutex; /* the library neither reads nor writes it */

/* Turns the library into the application's kernel. Call it once, from the main thread, before any
 * other kernel service and before the application starts threads; it guards against a later second
 * call (which returns 1 and changes nothing), not against two first calls at a time.
 *
 * priorities      the table, by value; its last word is an offset to the caller's own priority
 * tick_period_us  tick period in microseconds, 1 to 4294967 (a second or more is fine). Zero or a
 *                 larger value is reported in one line on standard error; the kernel-call thread
 *                 then never ticks
 * reserved        ignored; kept for the argument layout
 * run_poller      run on every tick, may be null
 * update_rtc_func clock-change callback, may be null
 *
 * Puts the caller under SCHED_FIFO, at its own priority or at least the policy's lowest (exactly
 * the lowest when the environment variable DEBUGGER is "TRUE"), and adds that priority to
 * kernel_priorities.linux_base_priority; takes the start time; makes interrupts_disabled_mutex;
 * starts the kernel-call thread; creates the deferred-service controller; prepares the network
 * module; and deletes EVERY named network namespace of the system, also those of other programs.
 * SIGTERM and SIGHUP are blocked in the kernel-call thread and unblocked in the caller afterwards,
 * even if they were blocked before.
 *
 * Returns 1 always. Failing scheduling, clock and signal calls are not reported (without the right
 * to real-time priorities the kernel-call thread cannot be made, and that does stop the process,
 * through zel_fatal). Blocks while it runs `ip` for each leftover namespace. */
ZEL_EXPORT int zel_kernel_init(KernelPriorities priorities, uint32_t tick_period_us,
                               uint32_t reserved, zel_run_poller_func run_poller,
                               zel_update_rtc_func update_rtc_func)
    ZEL_TIME64_NAME("zel_kernel_init_time64");

/* The fatal stop: writes "file:line message" as one line to standard error and aborts (SIGABRT).
 * Any thread, any time; needs no heap and little stack. */
ZEL_NORETURN ZEL_EXPORT void zel_fatal(const char* message, const char* file, int line);

/* The queries below take no lock, never block, and may be called from any thread at any time. */

/* 1 once zel_kernel_init has finished, else 0. */
ZEL_EXPORT int zel_initialized(void);

/* 1 in the kernel-call thread (the run poller and queued kernel calls), else 0; 0 before start-up.
 */
ZEL_EXPORT int zel_get_current_context(void);

/* 1 where zel_get_current_context gives 0, else 0. */
ZEL_EXPORT int isItSafeToBlock(void);

/* Always 1: interrupts are threads here and are never disabled as a whole. */
ZEL_EXPORT int AdAreInterruptsEnabled(void);

/* timer_priority + linux_base_priority as they stand now; 0 before start-up. */
ZEL_EXPORT int zel_timer_priority(void);

/* Always null: the manager's state is class-wide, see interrupt_manager.hpp. */
ZEL_EXPORT void* zel_get_interrupt_mgr(void);

ZEL_END_DECLS

#endif
