/* Memory, uptime and shell commands. No function here takes a lock or keeps state; several threads
 * may call them at once. */
#ifndef ZELKERNEL_SYSTEM_H
#define ZELKERNEL_SYSTEM_H

#include <zelkernel/config.h>

#include <stddef.h>
#include <stdint.h>
#include <time.h>

ZEL_BEGIN_DECLS

/* Total memory in bytes (MemTotal of /proc/meminfo); 0 when it is missing there. If the file cannot
 * be opened: "Failed to open file /proc/meminfo" on standard output, and 0. Reads a file. */
ZEL_EXPORT uint64_t zel_get_total_mem(void);

/* Free plus inactive memory in bytes (MemFree and Inactive of /proc/meminfo, the sum of what is
 * found). Failure as above. Reads a file. */
ZEL_EXPORT int64_t zel_get_free_mem(void);

/* Stores the time since zel_kernel_init in `ts` (before start-up: CLOCK_MONOTONIC as it is) and
 * returns 0, or the failing clock_gettime's result with `ts` as the system left it. This is what
 * the application sees as CLOCK_MONOTONIC. */
ZEL_EXPORT int zel_get_uptime(struct timespec* ts) ZEL_TIME64_NAME("zel_get_uptime_time64");

/* CLOCK_MONOTONIC at zel_kernel_init in nanoseconds; 0 before start-up. */
ZEL_EXPORT int64_t zel_get_starttime_in_ns(void);

/* Runs `command` with the shell and captures its standard output.
 *
 * output       receives the text, NUL-terminated, cut to output_size - 1 characters; what the
 *              command prints beyond that is not read, and a command that goes on printing gets
 *              SIGPIPE. May be null: then nothing is read, and the call returns when the command
 *              has ended.
 * output_size  bytes at `output`; at least 1 when output is not null
 *
 * Returns the status as waitpid() gives it (0; 512 for exit code 2). If the command cannot be
 * started: with a null output 0, otherwise "popen() failed; ..." stands in output and its full
 * length is returned. If its status cannot be had (an application that ignores SIGCHLD):
 * "pclose() failed; ..." is appended to the text and the length of that message is returned; with
 * a null output the result is -1.
 *
 * Blocks until the command has ended; a signal does not cut that short, nor does the cancellation
 * of the calling thread, which takes effect then. The descriptor in between is close-on-exec.
 * Standard error is the process's own unless the command says 2>&1. The command runs with the
 * caller's policy and priority: threads below a SCHED_FIFO caller wait for it on the processor on
 * which it runs. That may be any: a caller that is kept on one processor is not for as long as the
 * command takes to be started. What Linux has to free after a command would otherwise hold up the
 * next thread there that leaves the kernel, a sender of packets by 100 us and more. */
ZEL_EXPORT int zel_run_command(const char* command, char* output, size_t output_size);

ZEL_END_DECLS

#endif
