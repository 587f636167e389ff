// zel_kernel_init: the one module that knows all others.
#include "KernelState.hpp"
#include "Statistics.hpp"
#include "Time32.hpp"

#include <zelkernel/deferred_service.hpp>
#include <zelkernel/kcall.h>
#include <zelkernel/kernel.h>
#include <zelkernel/locks.h>
#include <zelkernel/routing.h>
#include <zelkernel/signals.hpp>
#include <zelkernel/tun.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>
#include <pthread.h>
#include <sched.h>

using Drivers::Devices::InterruptProcessing::LinuxDeferredServiceController;

namespace {

bool started_for_debugging() {
    const char* debugger = std::getenv("DEBUGGER");
    return debugger != nullptr && std::strcmp(debugger, "TRUE") == 0;
}

// Puts the caller under SCHED_FIFO and makes its priority the base of the table. Without the right
// to real-time scheduling the table is computed all the same.
void rebase_priorities() {
    int policy = SCHED_OTHER;
    sched_param param{};
    pthread_getschedparam(pthread_self(), &policy, &param);
    const int lowest = sched_get_priority_min(SCHED_FIFO);
    param.sched_priority =
        started_for_debugging() ? lowest : std::max(param.sched_priority, lowest);
    kernel_priorities.linux_base_priority = zel::linux_priority(param.sched_priority);
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &param);
    priorities_initialized = 1;
}

void take_start_time() {
    clock_gettime(CLOCK_MONOTONIC, &starttime);
    starttimeInNs = static_cast<int64_t>(starttime.tv_sec) * 1'000'000'000 + starttime.tv_nsec;
    zel::set_start_time_in_32_bits(starttime.tv_sec, starttime.tv_nsec);
}

// The ceiling is a Linux priority: it comes from the table, not from the application's numbering.
void initialize_interrupts_disabled_mutex() {
    pthread_mutexattr_t attr;
    __wrap_pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_PROTECT);
    pthread_mutexattr_setprioceiling(
        &attr, zel::linux_priority(kernel_priorities.interrupt_lock_priority));
    __wrap_pthread_mutex_init(&interrupts_disabled_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

sigset_t shutdown_signals() {
    unsigned int count = 0;
    const int* signals = getAllSignalsThatShutdownZel(&count);
    sigset_t set;
    sigemptyset(&set);
    for (unsigned int i = 0; i < count; ++i)
        sigaddset(&set, signals[i]);
    return set;
}

// The new thread inherits the blocked signals: shutting down is the application's business.
void start_kernel_calls(zel_run_poller_func run_poller, uint32_t tick_period_us) {
    const sigset_t set = shutdown_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    zel::kcall_thread_id = kcall_initialize_queue(run_poller, tick_period_us);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

// No exception may leave: the caller may be C code.
void create_deferred_service_controller() try {
    LinuxDeferredServiceController::getInstance();
} catch (const std::bad_alloc&) {
    zel_fatal("Could not create the deferred service controller.", "src/KernelStartUp", __LINE__);
}

} // namespace

int zel_kernel_init(KernelPriorities priorities, uint32_t tick_period_us, uint32_t,
                    zel_run_poller_func run_poller, zel_update_rtc_func update_rtc_func) {
    if (initialized)
        return 1;
    kernel_priorities = priorities;
    rebase_priorities();
    take_start_time();
    updateRTCFunc = update_rtc_func;
    initialize_interrupts_disabled_mutex();
    zel::publish_statistics();
    start_kernel_calls(run_poller, tick_period_us);
    create_deferred_service_controller();
    zel_tun_init();
    remove_all_network_namespaces();
    __atomic_store_n(&initialized, 1, __ATOMIC_RELEASE); // the poller may be asking already
    return 1;
}
