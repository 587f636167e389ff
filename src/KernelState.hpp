// Kernel state that is not exported. What the application may see stands in zelkernel/kernel.h.
// Written by zel_kernel_init only, before other threads use kernel services; no lock.
#pragma once

#include <pthread.h>

#include <zelkernel/kernel.h>

namespace zel {

// The kernel-call thread; all ones, which is no thread's id, until start-up has made it.
extern pthread_t kcall_thread_id;

// A word of kernel_priorities plus linux_base_priority: a Linux SCHED_FIFO priority.
int linux_priority(int relative_priority);

} // namespace zel
