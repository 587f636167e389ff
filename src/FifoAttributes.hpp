#pragma once

#include <zelkernel/scheduling.h>

#include <pthread.h>
#include <sched.h>

namespace zel {

// Attributes of a thread of the library's own: the kernel's stack and SCHED_FIFO, whatever its
// creator has. Made without a priority, they still need one.
class FifoAttributes {
public:
    FifoAttributes() {
        __wrap_pthread_attr_init(&attr_);
        pthread_attr_setinheritsched(&attr_, PTHREAD_EXPLICIT_SCHED);
        pthread_attr_setschedpolicy(&attr_, SCHED_FIFO);
    }
    explicit FifoAttributes(int linux_priority) : FifoAttributes() {
        const sched_param param{linux_priority};
        pthread_attr_setschedparam(&attr_, &param);
    }
    ~FifoAttributes() { pthread_attr_destroy(&attr_); }
    FifoAttributes(const FifoAttributes&) = delete;
    FifoAttributes& operator=(const FifoAttributes&) = delete;

    pthread_attr_t* get() { return &attr_; }

private:
    pthread_attr_t attr_{};
};

} // namespace zel
