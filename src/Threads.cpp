// Thread creation and the registry of threads.
//
// current_pthread_ids holds the ids; current_pthread_ids_mutex guards it. Threads: any creator, and
// each created thread at its end. The creator keeps the lock from before the system's call until
// the id is entered: a new thread that runs at a higher priority and has already finished its
// routine waits there with its removal, so that its id cannot be entered after it is gone.
#include "NeverDestroyed.hpp"
#include "PosixLock.hpp"
#include "PosixLocksSwitch.hpp"
#include "Probes.hpp"
#include "Stack.hpp"
#include "SystemCallReport.hpp"

#include <zelkernel/affinity.h>
#include <zelkernel/scheduling.h>
#include <zelkernel/threads.h>

#include <cerrno>
#include <cstdlib>
#include <new>
#include <set>

using zel::report_failure;

namespace {

using ThreadIds = std::set<pthread_t>;

zel::NeverDestroyed<ThreadIds> current_pthread_ids;

zel::PosixMutex current_pthread_ids_mutex;

void unregister_calling_thread(void*) {
    ZEL_PROBE(thread_end);
    const zel::PosixLock lock{current_pthread_ids_mutex};
    current_pthread_ids->erase(pthread_self());
}

// Its destructor runs when a thread ends by pthread_exit or cancellation, also where the stack
// cannot be unwound: C code for the target carries no unwind tables.
const pthread_key_t end_of_thread_key = [] {
    pthread_key_t key{};
    pthread_key_create(&key, unregister_calling_thread);
    return key;
}();

// A set node made ahead, so that entering an id cannot fail once its thread runs.
ThreadIds::node_type make_node() {
    ThreadIds single{pthread_t{}};
    return single.extract(single.begin());
}

// The attributes of a new thread: the kernel's scheduling model with the caller's stack and
// priority.
class KernelThreadAttributes {
public:
    explicit KernelThreadAttributes(const pthread_attr_t* caller) {
        report_failure(__wrap_pthread_attr_init(&attr_), "__w_pthread_create; pthread_attr_init");
        report_failure(pthread_attr_setschedpolicy(&attr_, SCHED_FIFO),
                       "__w_pthread_create; pthread_attr_setschedpolicy");
        report_failure(pthread_attr_setinheritsched(&attr_, PTHREAD_EXPLICIT_SCHED),
                       "__w_pthread_create; pthread_attr_setinheritsched");
        report_failure(pthread_attr_setdetachstate(&attr_, PTHREAD_CREATE_DETACHED),
                       "__w_pthread_create; pthread_attr_setdetachstate");
        if (caller == nullptr)
            return;
        take_stack(caller);
        take_priority(caller);
    }
    ~KernelThreadAttributes() { pthread_attr_destroy(&attr_); }
    KernelThreadAttributes(const KernelThreadAttributes&) = delete;
    KernelThreadAttributes& operator=(const KernelThreadAttributes&) = delete;

    const pthread_attr_t* get() const { return &attr_; }

private:
    void take_stack(const pthread_attr_t* caller) {
        void* address = nullptr;
        size_t size = 0;
        report_failure(__wrap_pthread_attr_getstack(caller, &address, &size),
                       "__w_pthread_create; pthread_attr_getstack");
        if (address != nullptr) {
            report_failure(__wrap_pthread_attr_setstack(&attr_, address, size),
                           "__w_pthread_create; pthread_attr_setstack");
        }
        report_failure(pthread_attr_getstacksize(caller, &size),
                       "__w_pthread_create; pthread_attr_getstacksize");
        if (size > zel::minimum_stack_size || address != nullptr) {
            report_failure(pthread_attr_setstacksize(&attr_, size),
                           "__w_pthread_create; pthread_attr_setstacksize");
        }
    }

    void take_priority(const pthread_attr_t* caller) {
        sched_param param{};
        report_failure(pthread_attr_getschedparam(caller, &param),
                       "__w_pthread_create; pthread_attr_getschedparam");
        report_failure(pthread_attr_setschedparam(&attr_, &param),
                       "__w_pthread_create; _r_pthread_attr_setschedparam");
    }

    pthread_attr_t attr_{};
};

int create_with_start_block(pthread_t* id, const pthread_attr_t* attr,
                            void* (*start_routine)(void*), void* arg) {
    auto* block = static_cast<ThreadStartBlock*>(std::malloc(sizeof(ThreadStartBlock)));
    if (block == nullptr) {
        errno = ENOMEM;
        return ENOMEM;
    }
    *block = {start_routine, arg};
    const int result = __zel_pure_pthread_create(id, attr, thread_func, block);
    if (result != 0)
        std::free(block);
    return result;
}

} // namespace

static_assert(sizeof(ThreadStartBlock) == 2 * sizeof(void*));

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr,
                          void* (*start_routine)(void*), void* arg) {
    if (!zel::posix_locks_are_on()) {
        if (thread != nullptr)
            *thread = 0;
        return report_failure(EPERM, "__w_pthread_create; posix locks are disabled");
    }
    const KernelThreadAttributes attributes{attr};
    pthread_t id{};
    const int result = create_with_start_block(&id, attributes.get(), start_routine, arg);
    report_failure(result, "__w_pthread_create; pthread_create");
    if (thread != nullptr)
        *thread = id;
    return result;
}

int __zel_pure_pthread_create(pthread_t* thread, const pthread_attr_t* attr,
                              void* (*start_routine)(void*), void* arg) try {
    auto node = make_node();
    pthread_t id{};
    {
        const zel::PosixLock lock{current_pthread_ids_mutex};
        if (const int result = pthread_create(&id, attr, start_routine, arg)) {
            errno = result;
            return result;
        }
        ZEL_PROBE(thread_created, start_routine, arg);
        node.value() = id;
        current_pthread_ids->insert(std::move(node));
    }
    if (thread != nullptr)
        *thread = id;
    return 0;
} catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return ENOMEM;
}

void* thread_func(void* block) {
    const ThreadStartBlock start = *static_cast<ThreadStartBlock*>(block);
    std::free(block);
    // Only the routine can be cancelled: before it, it would be lost with what its argument owns;
    // after it, if it has made its thread cancellable at any moment, the registry would stay locked
    // or the id in it.
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    // Any non-null value makes the key's destructor run.
    pthread_setspecific(end_of_thread_key, &end_of_thread_key);
    setThreadAffinityCPU0();
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    ZEL_PROBE(thread_begin, start.start_routine, start.arg);
    start.start_routine(start.arg);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_setspecific(end_of_thread_key, nullptr);
    unregister_calling_thread(nullptr);
    return nullptr;
}

int getCopyOfCurrentPthreadIds(pthread_t* ids, unsigned int max_ids, unsigned int* count) {
    *count = 0;
    zel::PosixLock lock{current_pthread_ids_mutex};
    for (auto id = current_pthread_ids->begin();
         id != current_pthread_ids->end() && *count < max_ids; ++id)
        ids[(*count)++] = *id;
    return lock.release();
}
