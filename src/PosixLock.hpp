// The library's own mutexes (registry, condition clocks, network state) and their guard.
#pragma once

#include <zelkernel/locks.h>

#include <pthread.h>

namespace zel {

// Inherits priority. A static one exists from library load and is never destroyed.
class PosixMutex {
public:
    PosixMutex() { __wrap_pthread_mutex_init(&mutex_, nullptr); }
    PosixMutex(const PosixMutex&) = delete;
    PosixMutex& operator=(const PosixMutex&) = delete;

    operator pthread_mutex_t&() { return mutex_; }

private:
    pthread_mutex_t mutex_;
};

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
