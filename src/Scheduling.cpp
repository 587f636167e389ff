// Priorities in the application's numbering, the kernel's stack policy, and thread names.
#include "PriorityShift.hpp"
#include "Probes.hpp"
#include "Stack.hpp"
#include "SystemCallReport.hpp"

#include <zelkernel/scheduling.h>

#include <algorithm>
#include <cstring>

using zel::report_failure;

int __wrap_pthread_attr_init(pthread_attr_t* attr) {
    if (const int r = pthread_attr_init(attr))
        return report_failure(r, "__w_pthread_attr_init; __r_pthread_attr_init failed");
    return report_failure(pthread_attr_setstacksize(attr, zel::minimum_stack_size),
                          "__w_pthread_create; pthread_attr_setstacksize set default failed");
}

int __wrap_pthread_attr_getstack(const pthread_attr_t* attr, void** stackaddr, size_t* stacksize) {
    if (const int r = pthread_attr_getstack(attr, stackaddr, stacksize))
        return report_failure(r, "__w_pthread_attr_getstack; pthread_attr_getstack failed");
    if (reinterpret_cast<uintptr_t>(*stackaddr) + *stacksize == 0)
        *stackaddr = nullptr;
    return 0;
}

int __wrap_pthread_attr_setstack(pthread_attr_t* attr, void* stackaddr, size_t stacksize) {
    const size_t size = std::max(stacksize, zel::minimum_stack_size);
    if (stackaddr == nullptr)
        stackaddr = reinterpret_cast<void*>(-static_cast<uintptr_t>(size));
    return report_failure(pthread_attr_setstack(attr, stackaddr, size),
                          "__w_pthread_attr_setstack; pthread_attr_setstack failed");
}

int __wrap_pthread_attr_setschedparam(pthread_attr_t* attr, const sched_param* param) {
    sched_param local{};
    local.sched_priority = zel::to_linux_priority(param->sched_priority);
    return report_failure(pthread_attr_setschedparam(attr, &local),
                          "_w_pthread_attr_setschedparam; _r_pthread_attr_setschedparam");
}

int __wrap_pthread_setschedparam(pthread_t thread, int policy, const sched_param* param) {
    sched_param local{};
    local.sched_priority = zel::to_linux_priority(param->sched_priority);
    return pthread_setschedparam(thread, policy, &local);
}

int __wrap_pthread_getschedparam(pthread_t thread, int* policy, sched_param* param) {
    sched_param local{};
    const int result = pthread_getschedparam(thread, policy, &local);
    if (param != nullptr)
        param->sched_priority = zel::to_application_priority(local.sched_priority);
    return result;
}

int __wrap_sched_get_priority_min(int) {
    return kernel_priorities.app_min_priority;
}

int __wrap_sched_get_priority_max(int) {
    return kernel_priorities.app_max_priority;
}

int __wrap_pthread_setname_np(pthread_t thread, const char* name) {
    ZEL_PROBE(thread_named, thread, name);
    constexpr size_t limit = 15; // the system's, without the terminator
    if (strnlen(name, limit + 1) <= limit)
        return pthread_setname_np(thread, name);
    char shortened[limit + 1];
    std::memcpy(shortened, name, limit - 1);
    shortened[limit - 1] = '~';
    shortened[limit] = '\0';
    return pthread_setname_np(thread, shortened);
}
