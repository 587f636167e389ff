// The interrupt manager: the thread "InterruptThread" and one LinuxInterruptSource per vector.
#pragma once

#include <zelkernel/config.h>
#include <zelkernel/interrupt_source.hpp>

#include <cstdint>
#include <map>
#include <pthread.h>

extern "C" {
// -1 until the interrupt thread runs, then 0. Every source records it as its channel id.
ZEL_EXPORT extern std::int32_t interruptChannelId;
}

namespace Linux {

// All objects share one class-wide state. Construct the first one after zel_kernel_init; it starts
// the interrupt thread at Linux priority interrupt_thread_priority + linux_base_priority and
// returns when that thread runs. The thread inherits the constructing thread's signal mask and
// serves all interrupts, one at a time, until the process ends.
//
// No lock: construct the first manager, and call get and getNumberOfVectors, from one thread at a
// time, while drivers are set up.
class ZEL_EXPORT LinuxInterruptMgr {
public:
    LinuxInterruptMgr();
    virtual ~LinuxInterruptMgr();

    // Starts the class-wide state; the first construction calls it. A thread that cannot be created
    // is reported by perror("LinuxInterruptMgr::initialize") and stops the process through
    // zel_fatal: nobody would serve interrupts. So does an application without a platform.
    void initialize();

    // The thread's body; not for the application.
    [[noreturn]] static void* InterruptThread(void*);

    // Returns once the interrupt thread runs; polls every 10 microseconds.
    void waitOnInterruptThread();

    // The source of `vector` (any value), made on the first call, never deleted, and the same one
    // at every later call. Throws std::bad_alloc when there is no memory for a new one.
    LinuxInterruptSource* get(unsigned int vector);

    // Number of sources made so far.
    unsigned int getNumberOfVectors() const;

    // Linux priority and id of the interrupt thread; 0 before the first construction.
    int getPriority() const;
    pthread_t getPthreadId() const;

private:
    // By reference, since the map itself is never torn down: exit() may come in the middle of
    // get().
    static std::map<std::uint32_t, LinuxInterruptSource*>& vectorMap;
    static std::int32_t priority;
    static pthread_t pthreadId;
    static bool isInitialized;
};

} // namespace Linux
