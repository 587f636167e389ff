// Mutexes, priority ceilings, semaphores, and the posix locks switch that gates them.
#include "PosixLock.hpp"
#include "PosixLocksSwitch.hpp"
#include "PriorityShift.hpp"
#include "TracedLock.hpp"

#include <zelkernel/locks.h>

#include <cerrno>

extern "C" {
uint8_t posix_locks_enabled = 1;
int32_t num_semaphores;
}

using zel::posix_locks_are_on;

namespace {

int lock(pthread_mutex_t* mutex) {
    for (;;) {
        const int result = zel::lock(mutex);
        if (result != ETIMEDOUT) [[likely]]
            return result;
    }
}

} // namespace

namespace zel {

PosixLock::PosixLock(pthread_mutex_t& mutex) : mutex_(mutex) {
    acquire();
}

void PosixLock::acquire() {
    held_ = posix_locks_are_on() && ::lock(&mutex_) == 0;
}

int PosixLock::release() {
    if (!held_)
        return 0;
    held_ = false;
    return pthread_mutex_unlock(&mutex_);
}

} // namespace zel

void zel_enable_posix_locks() {
    __atomic_store_n(&posix_locks_enabled, 1, __ATOMIC_RELAXED);
}

void zel_disable_posix_locks() {
    __atomic_store_n(&posix_locks_enabled, 0, __ATOMIC_RELAXED);
}

int __wrap_pthread_mutexattr_init(pthread_mutexattr_t* attr) {
    const int result = pthread_mutexattr_init(attr);
    pthread_mutexattr_setprotocol(attr, PTHREAD_PRIO_INHERIT);
    return result;
}

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attr) {
    if (attr != nullptr)
        return pthread_mutex_init(mutex, attr);
    pthread_mutexattr_t inheriting;
    __wrap_pthread_mutexattr_init(&inheriting);
    // Once more: the wrapper does not tell whether it could.
    pthread_mutexattr_setprotocol(&inheriting, PTHREAD_PRIO_INHERIT);
    const int result = pthread_mutex_init(mutex, &inheriting);
    pthread_mutexattr_destroy(&inheriting);
    return result;
}

int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    return posix_locks_are_on() ? lock(mutex) : 0;
}

int __wrap_pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* abstime) {
    return posix_locks_are_on() ? pthread_mutex_timedlock(mutex, abstime) : 0;
}

int __wrap_pthread_mutex_trylock(pthread_mutex_t* mutex) {
    return posix_locks_are_on() ? pthread_mutex_trylock(mutex) : 0;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    return posix_locks_are_on() ? pthread_mutex_unlock(mutex) : 0;
}

int __wrap_pthread_mutexattr_setprioceiling(pthread_mutexattr_t* attr, int prioceiling) {
    return pthread_mutexattr_setprioceiling(attr, zel::to_linux_priority(prioceiling));
}

int __wrap_pthread_mutexattr_getprioceiling(const pthread_mutexattr_t* attr, int* prioceiling) {
    const int result = pthread_mutexattr_getprioceiling(attr, prioceiling);
    *prioceiling = zel::to_application_priority(*prioceiling);
    return result;
}

int __wrap_pthread_mutex_setprioceiling(pthread_mutex_t* mutex, int prioceiling, int* old_ceiling) {
    // The system's header declares old_ceiling non-null: the compiler would drop a test after the
    // call.
    int unused = 0;
    int* const where = old_ceiling != nullptr ? old_ceiling : &unused;
    const int result =
        pthread_mutex_setprioceiling(mutex, zel::to_linux_priority(prioceiling), where);
    *where = zel::to_application_priority(*where);
    return result;
}

int __wrap_pthread_mutex_getprioceiling(const pthread_mutex_t* mutex, int* prioceiling) {
    const int result = pthread_mutex_getprioceiling(mutex, prioceiling);
    *prioceiling = zel::to_application_priority(*prioceiling);
    return result;
}

int __wrap_sem_init(sem_t* sem, int, unsigned int value) {
    return sem_init(sem, 0, value);
}

int __wrap_sem_wait(sem_t* sem) {
    if (!posix_locks_are_on())
        return 0;
    for (;;) {
        const int result = sem_wait(sem);
        if (result != -1 || errno != EINTR) [[likely]]
            return result;
    }
}

int __wrap_sem_timedwait(sem_t* sem, const timespec* abstime) {
    if (!posix_locks_are_on())
        return 0;
    for (;;) {
        const int result = sem_timedwait(sem, abstime);
        if (result != -1 || errno != EINTR)
            return result;
    }
}

int __wrap_sem_trywait(sem_t* sem) {
    return posix_locks_are_on() ? sem_trywait(sem) : 0;
}

int __wrap_sem_post(sem_t* sem) {
    return posix_locks_are_on() ? sem_post(sem) : 0;
}
