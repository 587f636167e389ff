// sys/sdt.h then notes a semaphore with each probe point of this file.
#define _SDT_HAS_SEMAPHORES 1

#include "TracedLock.hpp"

#if ZEL_HAVE_SDT
// Linux writes them, from outside.
extern "C" {
[[gnu::section(".probes")]] unsigned short zelkernel_lock_wait_semaphore;
[[gnu::section(".probes")]] unsigned short zelkernel_lock_taken_semaphore;
}
#endif

namespace zel {
namespace {

// Whether some thread holds the lock at this moment, without touching it: glibc notes the owner.
// Nothing but the probes depends on the answer.
bool is_held(const pthread_mutex_t* mutex) {
    return __atomic_load_n(&mutex->__data.__owner, __ATOMIC_RELAXED) != 0;
}

} // namespace

int lock_telling_of_a_wait(pthread_mutex_t* mutex) {
    if (!is_held(mutex))
        return pthread_mutex_lock(mutex);
    ZEL_PROBE(lock_wait, mutex);
    const int result = pthread_mutex_lock(mutex);
    ZEL_PROBE(lock_taken, mutex);
    return result;
}

} // namespace zel
