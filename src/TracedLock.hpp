// pthread_mutex_lock with the probe points of a contended lock (src/Probes.hpp).
//
// To tell whether a lock is held reads the lock itself just before it is taken. So it is only
// looked at while a tracer is attached to `lock_wait`: Linux counts those in the point's semaphore
// (uprobes' reference counter, Linux 4.20), a word that nobody else writes. That costs half as
// much.
#pragma once

#include "Probes.hpp"

#include <pthread.h>

#if ZEL_HAVE_SDT
extern "C" unsigned short zelkernel_lock_wait_semaphore;
#endif

namespace zel {

int lock_telling_of_a_wait(pthread_mutex_t* mutex);

inline int lock(pthread_mutex_t* mutex) {
#if ZEL_HAVE_SDT
    if (__atomic_load_n(&zelkernel_lock_wait_semaphore, __ATOMIC_RELAXED) != 0) [[unlikely]]
        return lock_telling_of_a_wait(mutex);
#endif
    return pthread_mutex_lock(mutex);
}

} // namespace zel
