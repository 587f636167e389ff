// Guard for the library's own mutexes (registry, condition clocks, network state).
#pragma once

#include <pthread.h>

namespace zel {

// Holds `mutex` for its scope, or does nothing when the posix locks switch was off on entry. The
// switch is read once: were it read again at the release, a switch-off in between would leave the
// mutex locked for ever.
class PosixLock {
public:
    explicit PosixLock(pthread_mutex_t& mutex);
    ~PosixLock() { release(); }
    PosixLock(const PosixLock&) = delete;
    PosixLock& operator=(const PosixLock&) = delete;

    // Ends the critical section early; gives the unlock's result (0 when nothing was held).
    int release();

    // Takes the mutex again after release(), by the switch as it stands then.
    void acquire();

private:
    pthread_mutex_t& mutex_;
    bool held_ = false;
};

} // namespace zel
