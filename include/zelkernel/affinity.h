/* Processor count and placement of the calling thread. Application threads start on CPU 0; the
 * library's kernel-call and interrupt threads run on all. Any thread; no lock. */
#ifndef ZELKERNEL_AFFINITY_H
#define ZELKERNEL_AFFINITY_H

#include <zelkernel/config.h>

#include <stdint.h>

ZEL_BEGIN_DECLS

ZEL_EXPORT extern int32_t num_processors; /* 0 until the count is known, then cached for ever */

/* The processor count. The first call runs "grep -c processor /proc/cpuinfo" (it blocks, and ends
 * the process with exit status 1 if the command cannot be started); a count that cannot be read
 * counts as 1. */
ZEL_EXPORT int getNumOfCpus(void);

/* Places the calling thread on processor `cpu` modulo the count, or, for a negative `cpu`, on all.
 * Returns 0 or the error number of pthread_setaffinity_np. */
ZEL_EXPORT int setThreadAffinityCPU(int cpu);
ZEL_EXPORT int setThreadAffinityAllCpus(void); /* setThreadAffinityCPU(-1) */
ZEL_EXPORT int setThreadAffinityCPU0(void);    /* setThreadAffinityCPU(0) */

/* Bit n set: the calling thread may run on processor n (n < 32). 0 on failure, and while the count
 * is not known. */
ZEL_EXPORT uint32_t getThreadAffinityCPU(void);

ZEL_END_DECLS

#endif
