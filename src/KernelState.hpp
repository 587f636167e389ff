// Kernel state that is not exported. What the application may see stands in zelkernel/kernel.h.
// No lock.
#pragma once

#include <zelkernel/kernel.h>

#include <atomic>
#include <pthread.h>

namespace zel {

// The kernel-call thread; all ones, which is no thread's id, until it runs. The thread stores its
// id before its first tick, and start-up stores the same once more: the thread may run above
// start-up's priority, and its first poller must find itself in the kernel's context.
extern std::atomic<pthread_t> kcall_thread_id;

// A word of kernel_priorities plus linux_base_priority: a Linux SCHED_FIFO priority.
int linux_priority(int relative_priority);

} // namespace zel
