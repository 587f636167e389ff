#pragma once

#include "interpose.hpp"
#include "wait.hpp"

#include <zelkernel/kcall.h>
#include <zelkernel/kernel.h>

#include <atomic>
#include <csignal>
#include <pthread.h>

ZEL_INTERPOSE_TIME(int, timer_settime,
                   (timer_t timer, int flags, const itimerspec* value, itimerspec* old),
                   (timer, flags, value, old))

namespace zel::test {

// The kernel-call queue with a timer that is never armed: ticks come from tick() alone.
class ManualTick {
public:
    explicit ManualTick(int linux_priority = 60) {
        kernel_priorities.kcall_thread_priority = linux_priority;
        kernel_priorities.linux_base_priority = 0;
        interposed::timer_settime = [this](auto...) {
            waits_ = true; // blocks the tick signal by now
            return 0;
        };
        thread = kcall_initialize_queue([] { ++polls; }, 1000);
        eventually([this] { return waits_.load(); });
    }

    void signal() const { pthread_kill(thread, SIGRTMIN); }

    // Returns when the poller and all queued calls have run.
    bool tick() const {
        const int before = polls;
        signal();
        return eventually([&] { return polls > before && idle(); });
    }

    static bool idle() {
        pthread_mutex_lock(&kcall_mutex);
        const bool result = KCallIn == KCallOut && KCallLevel == 0;
        pthread_mutex_unlock(&kcall_mutex);
        return result;
    }

    static inline std::atomic<int> polls{0};
    pthread_t thread{};

private:
    std::atomic<bool> waits_{false};
};

} // namespace zel::test
