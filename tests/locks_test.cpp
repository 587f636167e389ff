#include "support/test.hpp"

ZEL_INTERPOSE(int, pthread_mutex_lock, (pthread_mutex_t * m), (m))
ZEL_INTERPOSE(int, pthread_mutex_unlock, (pthread_mutex_t * m), (m))
ZEL_INTERPOSE(int, pthread_mutexattr_setprotocol, (pthread_mutexattr_t * a, int p), (a, p))
ZEL_INTERPOSE_TIME(int, pthread_cond_timedwait,
                   (pthread_cond_t * c, pthread_mutex_t* m, const zel::test::SystemTime* t),
                   (c, m, t))
ZEL_INTERPOSE(FILE*, popen, (const char* c, const char* m), (c, m))

namespace {

using namespace zel::test;

// What an operation does with the library's locks in the calling thread.
struct Locking {
    pthread_mutex_t* mutex = nullptr; // of the last lock call
    int held = 0, most_held = 0;
    int commands_inside = 0, commands_outside = 0;
};

// The switch may be turned off while the operation holds the lock.
Locking locking_of(void (*operation)(), bool turn_off_inside = false) {
    static thread_local Locking* seen;
    Locking result;
    interposed::pthread_mutex_lock = [turn_off_inside](pthread_mutex_t* mutex) {
        if (seen != nullptr) {
            seen->mutex = mutex;
            seen->most_held = std::max(seen->most_held, ++seen->held);
            if (turn_off_inside)
                zel_disable_posix_locks();
        }
        return real::pthread_mutex_lock(mutex);
    };
    interposed::pthread_mutex_unlock = [](pthread_mutex_t* mutex) {
        if (seen != nullptr)
            --seen->held;
        return real::pthread_mutex_unlock(mutex);
    };
    interposed::popen = [](const char*, const char* mode) {
        ++(seen->held != 0 ? seen->commands_inside : seen->commands_outside);
        return real::popen(":", mode);
    };
    interposed::pthread_cond_timedwait = [](auto... arguments) {
        EXPECT_EQ(seen->held, 0) << "a wait under the library's lock";
        return real::pthread_cond_timedwait(arguments...);
    };
    seen = &result; // only now: setting a hook may take locks, too
    operation();
    seen = nullptr;
    return result;
}

// A mutex that inherits priority knows its owner, and does not let another thread unlock it.
bool inherits_priority(pthread_mutex_t* mutex) {
    return under_thread_sanitizer || real::pthread_mutex_unlock(mutex) == EPERM; // reports it
}

TEST(Ceiling, IsShiftedInAttributesAndMutexes) {
    kernel_priorities = {0, 0, 0, 0, 0, 0, 0, 0, 10}; // by -10
    pthread_mutexattr_t attr;
    pthread_mutex_t mutex;
    int value = 0;
    EXPECT_EQ(__wrap_pthread_mutexattr_init(&attr), 0);
    pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_PROTECT);
    EXPECT_EQ(__wrap_pthread_mutexattr_setprioceiling(&attr, 5), 0);
    pthread_mutexattr_getprioceiling(&attr, &value);
    EXPECT_EQ(value, 15);
    EXPECT_EQ(__wrap_pthread_mutexattr_getprioceiling(&attr, &value), 0);
    EXPECT_EQ(value, 5);

    EXPECT_EQ(__wrap_pthread_mutex_init(&mutex, &attr), 0); // the caller's protocol stands
    EXPECT_EQ(__wrap_pthread_mutex_getprioceiling(&mutex, &value), 0);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(__wrap_pthread_mutex_setprioceiling(&mutex, 20, &value), 0);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(__wrap_pthread_mutex_setprioceiling(&mutex, 25, nullptr), 0);
    pthread_mutex_getprioceiling(&mutex, &value);
    EXPECT_EQ(value, 35);
    EXPECT_EQ(__wrap_pthread_mutex_setprioceiling(&mutex, 90, &value), EINVAL);
    EXPECT_EQ(__wrap_pthread_mutexattr_setprioceiling(&attr, -10), EINVAL);
}

TEST(Mutex, HandsBackTheSystemsResults) {
    pthread_mutexattr_t attr;
    EXPECT_EQ(__wrap_pthread_mutexattr_init(&attr), 0);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_NONE); // the caller's choice stands
    pthread_mutex_t mutex;
    EXPECT_EQ(__wrap_pthread_mutex_init(&mutex, &attr), 0);
    const timespec past{1, 0};
    EXPECT_EQ(__wrap_pthread_mutex_lock(&mutex), 0);
    EXPECT_EQ(__wrap_pthread_mutex_lock(&mutex), EDEADLK);
    EXPECT_EQ(__wrap_pthread_mutex_trylock(&mutex), EBUSY);
    EXPECT_EQ(__wrap_pthread_mutex_timedlock(&mutex, &past), EDEADLK);
    on_kernel_thread([&] { EXPECT_EQ(__wrap_pthread_mutex_timedlock(&mutex, &past), ETIMEDOUT); });
    EXPECT_EQ(__wrap_pthread_mutex_unlock(&mutex), 0);
    EXPECT_TRUE(under_thread_sanitizer || // which reports it
                __wrap_pthread_mutex_unlock(&mutex) == EPERM);
}

TEST(Mutex, InheritsPriorityAndALockIsRetriedOnATimeoutAlone) {
    pthread_mutex_t mutex;
    pthread_mutexattr_t attr;
    __wrap_pthread_mutexattr_init(&attr);
    interposed::pthread_mutexattr_setprotocol = [refusals = 1](auto... arguments) mutable {
        return refusals-- > 0 ? ENOTSUP : real::pthread_mutexattr_setprotocol(arguments...);
    };
    for (const pthread_mutexattr_t* each : {&std::as_const(attr), {}}) {
        __wrap_pthread_mutex_init(&mutex, each);
        EXPECT_TRUE(inherits_priority(&mutex)) << each;
    }
    for (int last : {0, EINVAL}) {
        int calls = 0;
        // Its own alone: GoogleTest and the C library lock mutexes, too.
        interposed::pthread_mutex_lock = [&](pthread_mutex_t* locked) {
            if (locked != &mutex)
                return real::pthread_mutex_lock(locked);
            return ++calls < 4 ? ETIMEDOUT : last;
        };
        EXPECT_EQ(__wrap_pthread_mutex_lock(&mutex), last);
        interposed::pthread_mutex_lock = nullptr;
        EXPECT_EQ(calls, 4);
    }
}

// Each operation takes the one lock of its module, never a second one meanwhile, and holds it for
// the commands that must not be overtaken alone; with the switch off it takes none. Kernel calls
// know no switch.
TEST(Locks, AreTakenByEveryOperationThatTouchesSharedState) {
    static pthread_cond_t cond;
    static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    static const auto empty = reinterpret_cast<zel_word_t>(&Empty);
    enum Module { Registry, Conditions, Network, KernelCalls, Lockless };
    const struct {
        Module module;
        void (*operation)();
        int commands_inside = 0, commands_outside = 0;
    } cases[] = {
        {Registry,
         [] {
             unsigned int count = 0;
             getCopyOfCurrentPthreadIds(nullptr, 0, &count);
         }},
        {Registry,
         [] {
             pthread_t id{};
             __zel_pure_pthread_create(
                 &id, nullptr, [](void* arg) { return arg; }, nullptr);
             pthread_join(id, nullptr);
         }},
        {Registry,
         [] {
             auto* const block =
                 static_cast<ThreadStartBlock*>(std::malloc(sizeof(ThreadStartBlock)));
             *block = {[](void* arg) { return arg; }, nullptr};
             thread_func(block); // as a thread that ends
         }},
        {Conditions, [] { __wrap_pthread_cond_init(&cond, nullptr); }},
        {Conditions,
         [] {
             const timespec past{1, 0};
             real::pthread_mutex_lock(&mutex);
             __wrap_pthread_cond_timedwait(&cond, &mutex, &past);
             real::pthread_mutex_unlock(&mutex);
         }},
        {Conditions, [] { __wrap_pthread_cond_destroy(&cond); }},
        {Network, [] { zel_external_traffic_match_criteria_add(nullptr, 0, 1, 0, 0); }},
        {Network, [] { zel_vrf_create(nullptr, 0, "red"); }, 2, 7},
        {Network, [] { zel_external_traffic_match_criteria_add(nullptr, 0, 2, 0, 0); }, 2, 0},
        {Network, [] { zel_external_traffic_match_criteria_del(nullptr, 0, 2, 0, 0); }, 2, 0},
        {Network, [] { zel_external_traffic_match_criteria_del(nullptr, 0, 1, 0, 0); }, 2, 0},
        {Network, [] { zel_tun_ipv6_mtu(nullptr, 0, "red", 3, 600); }, 0, 1},
        {Lockless, [] { zel_tun_ipv4_packet_send(3, "", 1); }},
        {Network, [] { zel_tun_ipv4_destroy(nullptr, 0, "red", 3); }},
        {Network, [] { zel_vrf_destroy(nullptr, 0, "red"); }, 0, 1},
        {KernelCalls, [] { kcall_enqueue(empty, 0, 0, 0); }},
        {KernelCalls, [] { kcall_dequeue(empty, 0, 0, 0); }},
    };
    num_processors = 1; // no command is needed to count them
    kernel_priorities.kcall_thread_priority = 50;
    kcall_initialize_queue(nullptr, 4'000'000);
    zel_tun_init();
    for (const bool on : {true, false}) {
        on ? zel_enable_posix_locks() : zel_disable_posix_locks();
        pthread_mutex_t* of_module[] = {nullptr, nullptr, nullptr, &kcall_mutex, nullptr};
        for (const auto& c : cases) {
            const Locking seen = locking_of(c.operation);
            const bool expected = (on && c.module != Lockless) || c.module == KernelCalls;
            EXPECT_EQ(seen.mutex != nullptr, expected) << &c - cases;
            EXPECT_EQ(seen.most_held, expected ? 1 : 0) << &c - cases;
            EXPECT_EQ(seen.held, 0) << &c - cases;
            EXPECT_TRUE(seen.mutex == nullptr || inherits_priority(seen.mutex)) << &c - cases;
            EXPECT_EQ(seen.commands_inside, on ? c.commands_inside : 0) << &c - cases;
            EXPECT_EQ(seen.commands_inside + seen.commands_outside,
                      c.commands_inside + c.commands_outside);
            if (of_module[c.module] == nullptr)
                of_module[c.module] = seen.mutex;
            EXPECT_EQ(seen.mutex, of_module[c.module]) << &c - cases;
        }
    }
    for (const auto& c : cases) {
        zel_enable_posix_locks();
        EXPECT_EQ(locking_of(c.operation, true).held, 0) << &c - cases << ", turned off inside";
    }
}

TEST(Semaphore, IsPrivateToTheProcess) {
    sem_t sem;
    EXPECT_EQ(__wrap_sem_init(&sem, 1, 3), 0);
    // glibc keeps the request after the value and the number of waiters.
    const auto* words = reinterpret_cast<const int*>(&sem);
    EXPECT_EQ(words[UINTPTR_MAX > 0xffffffffu ? 2 : 1], 0);
    int value = 0;
    sem_getvalue(&sem, &value);
    EXPECT_EQ(value, 3);
    EXPECT_EQ(__wrap_sem_init(&sem, 0, 0x80000000u), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(num_semaphores, 0);
}

TEST(Semaphore, WaitsGoOnAfterSignals) {
    static std::atomic<int> signals;
    static sem_t sem;
    __wrap_sem_init(&sem, 0, 0);
    interrupt_calls([](int) {
        if (++signals == 20)
            sem_post(&sem);
    });
    EXPECT_EQ(__wrap_sem_wait(&sem), 0);
    EXPECT_GE(signals, 20);

    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    ++deadline.tv_sec;
    EXPECT_EQ(__wrap_sem_timedwait(&sem, &deadline), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
}

} // namespace
