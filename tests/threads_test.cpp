#include "support/allocation_failure.hpp"
#include "support/test.hpp"

#include <malloc.h>

ZEL_INTERPOSE(int, pthread_attr_init, (pthread_attr_t * a), (a))
ZEL_INTERPOSE(int, pthread_attr_setschedpolicy, (pthread_attr_t * a, int p), (a, p))
ZEL_INTERPOSE(int, pthread_attr_setinheritsched, (pthread_attr_t * a, int i), (a, i))
ZEL_INTERPOSE(int, pthread_attr_setdetachstate, (pthread_attr_t * a, int d), (a, d))
ZEL_INTERPOSE(int, pthread_attr_getstack, (const pthread_attr_t* a, void** p, size_t* s), (a, p, s))
ZEL_INTERPOSE(int, pthread_attr_setstack, (pthread_attr_t * a, void* p, size_t s), (a, p, s))
ZEL_INTERPOSE(int, pthread_attr_getstacksize, (const pthread_attr_t* a, size_t* s), (a, s))
ZEL_INTERPOSE(int, pthread_attr_setstacksize, (pthread_attr_t * a, size_t s), (a, s))
ZEL_INTERPOSE(int, pthread_attr_getschedparam, (const pthread_attr_t* a, sched_param* p), (a, p))
ZEL_INTERPOSE(int, pthread_attr_setschedparam, (pthread_attr_t * a, const sched_param* p), (a, p))
ZEL_INTERPOSE(int, pthread_setaffinity_np, (pthread_t t, size_t n, const cpu_set_t* s), (t, n, s))
ZEL_INTERPOSE(int, pthread_getaffinity_np, (pthread_t t, size_t n, cpu_set_t* s), (t, n, s))
ZEL_INTERPOSE(FILE*, popen, (const char* c, const char* m), (c, m))

namespace {

using namespace zel::test;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<pthread_t> registered(unsigned int most = 20000) {
    std::vector<pthread_t> ids(most);
    unsigned int count = 99999;
    EXPECT_EQ(getCopyOfCurrentPthreadIds(ids.data(), most, &count), 0);
    ids.resize(count);
    return ids;
}

bool registry_empties() {
    return eventually([] { return registered().empty(); });
}

void* do_nothing(void*) {
    return nullptr;
}

// The stack of the calling thread: its lowest address and its size.
std::pair<void*, size_t> own_stack() {
    pthread_attr_t attr;
    std::pair<void*, size_t> result;
    pthread_getattr_np(pthread_self(), &attr);
    real::pthread_attr_getstack(&attr, &result.first, &result.second);
    pthread_attr_destroy(&attr);
    return result;
}

TEST(Creation, TakesOnlyStackAndPriorityFromTheCaller) {
    static constexpr size_t own_size = 1 << 20;
    void* own = mmap(nullptr, own_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    struct Case {
        size_t size;
        void* address;
        size_t expected;
    };
    for (const Case& c : {Case{0, nullptr, 16384}, Case{16384, nullptr, 16384},
                          Case{65536, nullptr, 65536}, Case{own_size, own, own_size}}) {
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        if (c.size != 0 && c.address == nullptr) {
            pthread_attr_setstacksize(&attr, c.size);
        } else {
            __wrap_pthread_attr_setstack(&attr, c.address, c.size); // a null address: 16384 alone
        }
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_JOINABLE);
        pthread_attr_setinheritsched(&attr, PTHREAD_INHERIT_SCHED);
        pthread_attr_setschedpolicy(&attr, SCHED_RR);
        const sched_param param{7};
        pthread_attr_setschedparam(&attr, &param);
        KernelThread thread(&attr, [&] {
            const ThreadInfo info = thread_info(gettid());
            EXPECT_EQ(info.policy, SCHED_FIFO);
            EXPECT_EQ(info.priority, 7);
            EXPECT_EQ(info.status.at("Cpus_allowed_list"), "0");
            if (!under_thread_sanitizer) { // which enlarges stacks and has a join of its own
                EXPECT_EQ(own_stack().second, c.expected);
                EXPECT_EQ(pthread_join(pthread_self(), nullptr), EINVAL) << "is not detached";
            }
            if (c.address != nullptr) {
                EXPECT_EQ(own_stack().first, own);
            }
        });
        thread.join();
        EXPECT_EQ(thread.result, 0);
        pthread_attr_destroy(&attr);
        EXPECT_TRUE(registry_empties());
    }
    // The last thread may still be on its stack: it stays mapped.
    ASSERT_TRUE(become_fifo(9)); // whose priority is taken without attributes
    KernelThread(nullptr, [] { EXPECT_EQ(thread_info(gettid()).priority, 9); }).join();
}

TEST(Creation, ThatIsRefusedSaysWhyAndLeavesNothingBehind) {
    SKIP_IF_ALLOCATIONS_CANNOT_FAIL();
    Attributes accepted{1};
    const auto refuse = [](const pthread_attr_t* attr, int failing_allocation, int expected) {
        pthread_t id = 1;
        allocation_to_fail = failing_allocation;
        errno = 0;
        EXPECT_EQ(__wrap_pthread_create(&id, attr, do_nothing, nullptr), expected);
        EXPECT_EQ(allocation_to_fail, 0); // it was reached
        EXPECT_EQ(errno, expected);
        EXPECT_EQ(id, 0u);
    };
    const auto refuse_all = [&] {
        refuse(nullptr, 0, EINVAL); // a creator that has no real-time priority
        refuse(accepted, 1, ENOMEM);
        refuse(accepted, 2, ENOMEM);
        zel_disable_posix_locks();
        refuse(accepted, 0, EPERM);
        zel_enable_posix_locks();
    };
    EXPECT_EQ(printed_on(2, refuse_all),
              "__w_pthread_create; pthread_create: Invalid argument\n"
              "__w_pthread_create; pthread_create: Cannot allocate memory\n"
              "__w_pthread_create; pthread_create: Cannot allocate memory\n"
              "__w_pthread_create; posix locks are disabled: Operation not permitted\n");
    Capture quiet{2};
    const size_t before = mallinfo2().uordblks;
    for (int i = 0; i < 100; ++i)
        refuse_all();
    EXPECT_EQ(mallinfo2().uordblks, before);
    EXPECT_THAT(registered(), IsEmpty());
}

TEST(Creation, ReportsAFailingStepAndGoesOn) {
    ASSERT_TRUE(become_fifo(2));
    const auto expect = [](auto& hook, std::initializer_list<const char*> failing,
                           const char* also = "") {
        std::string lines;
        for (const char* step : failing)
            lines += "__w_pthread_" + std::string{step} + ": Operation not supported\n";
        // A stack and priority of the caller's make every step run. A new stack each time: a thread
        // that is out of the registry is still on its own.
        Attributes attr{3};
        real::pthread_attr_setstack(
            attr,
            mmap(nullptr, 1 << 20, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0),
            1 << 20);
        hook = [](auto...) { return ENOTSUP; };
        Capture printed{2};
        EXPECT_EQ(__wrap_pthread_create(nullptr, attr, do_nothing, nullptr), 0);
        EXPECT_EQ(printed.text(), lines + also);
        hook = nullptr;
        EXPECT_TRUE(registry_empties());
    };
    const auto no_priority =
        "__w_pthread_create; _r_pthread_attr_setschedparam: Invalid argument\n";
    expect(interposed::pthread_attr_setschedpolicy, {"create; pthread_attr_setschedpolicy"},
           no_priority);
    expect(interposed::pthread_attr_setinheritsched, {"create; pthread_attr_setinheritsched"});
    if (!under_thread_sanitizer) // which misses the join
        expect(interposed::pthread_attr_setdetachstate, {"create; pthread_attr_setdetachstate"});
    expect(interposed::pthread_attr_getstacksize, {"create; pthread_attr_getstacksize"});
    expect(interposed::pthread_attr_getstack,
           {"attr_getstack; pthread_attr_getstack failed", "create; pthread_attr_getstack"});
    expect(interposed::pthread_attr_setstack,
           {"attr_setstack; pthread_attr_setstack failed", "create; pthread_attr_setstack"});
    expect(interposed::pthread_attr_setstacksize,
           {"create; pthread_attr_setstacksize set default failed", "create; pthread_attr_init",
            "create; pthread_attr_setstacksize"});
    expect(interposed::pthread_attr_getschedparam, {"create; pthread_attr_getschedparam"},
           no_priority);
    expect(interposed::pthread_attr_setschedparam, {"create; _r_pthread_attr_setschedparam"});
}

TEST(Creation, PureFormRegistersForEverAndReportsNothing) {
    pthread_t id = 1;
    Capture printed{2};
    pthread_attr_t refused; // FIFO without a priority
    pthread_attr_init(&refused);
    pthread_attr_setschedpolicy(&refused, SCHED_FIFO);
    pthread_attr_setinheritsched(&refused, PTHREAD_EXPLICIT_SCHED);
    EXPECT_EQ(__zel_pure_pthread_create(&id, &refused, do_nothing, nullptr), EINVAL);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(printed.text(), "");
    EXPECT_EQ(id, 1u);
    ASSERT_EQ(__zel_pure_pthread_create(&id, nullptr, do_nothing, nullptr), 0);
    EXPECT_EQ(pthread_join(id, nullptr), 0); // the attributes are the caller's: joinable
    EXPECT_THAT(registered(), ElementsAre(id));
}

TEST(Registry, GivesTheSmallestIdsInAscendingOrder) {
    constexpr unsigned int threads = 5;
    sem_t stop;
    sem_init(&stop, 0, 0);
    std::vector<pthread_t> expected;
    for (unsigned int i = 0; i < threads; ++i)
        expected.push_back(KernelThread(Attributes{1}, [&] { sem_wait(&stop); }).id);
    std::sort(expected.begin(), expected.end());
    for (unsigned int most : {100u, threads, 2u, 0u}) {
        const std::vector<pthread_t> smallest(expected.begin(),
                                              expected.begin() + std::min(most, threads));
        EXPECT_EQ(registered(most), smallest);
    }
    for (unsigned int i = 0; i < threads; ++i)
        sem_post(&stop);
    EXPECT_TRUE(registry_empties());
}

// Above the creator's priority a routine is over before the creation call goes on.
TEST(Registry, ForgetsAThreadHoweverItEnds) {
    ASSERT_TRUE(become_fifo(10));
    setThreadAffinityCPU0();
    for (int priority : {5, 20}) {
        for (int i = 0; i < 100; ++i) {
            // First: an id that is left would go with a later thread that got it again.
            KernelThread waits(Attributes{priority}, [] {
                sem_t never;
                sem_init(&never, 0, under_thread_sanitizer); // which loses track when cancelled
                sem_wait(&never);
            });
            KernelThread returns(Attributes{priority}, [] {});
            KernelThread exits(Attributes{priority}, [] { pthread_exit(nullptr); });
            EXPECT_TRUE(under_thread_sanitizer || pthread_cancel(waits.id) == 0);
            for (KernelThread* thread : {&returns, &exits, &waits})
                thread->join();
        }
        EXPECT_TRUE(registry_empties()) << priority;
    }
}

// The guard page and the thread's own data leave some 12 of the 16 KiB.
TEST(Stack, OfTheSmallestSizeSufficesForTheLibrarysCalls) {
    if (under_address_sanitizer || under_thread_sanitizer)
        GTEST_SKIP() << "instrumented code needs more stack";
    std::fprintf(stderr, "From here on the stream is %s.\n", "oriented and unbuffered");
    Capture out{1}, err{2};
    static char text[100];
    static void (*const actions[])() = {
        [] { // refused
            zel_disable_posix_locks();
            __wrap_pthread_create(nullptr, nullptr, do_nothing, nullptr);
            zel_enable_posix_locks();
        },
        [] { KernelThread(Attributes{1}, [] {}).join(); },
        [] { zel_run_command("echo text; exec 2>&1; ls /nowhere", text, sizeof text); },
        [] {
            Linux::LinuxInterruptSource{0, 5, 60, 1, true}.printObjectInfo();
        },
        [] { zel_get_free_mem(); },
        [] { num_processors = 0, getNumOfCpus(); },
    };
    for (const auto& action : actions) {
        size_t left = 0;
        on_kernel_thread([&] {
            auto* const begin = static_cast<volatile unsigned char*>(own_stack().first);
            auto* const end = static_cast<unsigned char*>(__builtin_frame_address(0)) - 512;
            for (auto* p = begin; p < end; ++p)
                *p = 0xa5;
            action();
            auto* p = begin;
            while (*p == 0xa5)
                ++p;
            left = static_cast<size_t>(p - begin);
        });
        EXPECT_GT(left, 4096u) << "action " << &action - actions;
        RecordProperty("left" + std::to_string(&action - actions), static_cast<int>(left));
    }
}

TEST(Shift, MovesPrioritiesBothWays) {
    kernel_priorities = {0, 0, 0, 0, 0, 3, -20, 40, 13}; // by -10
    Attributes attr{1};
    const sched_param five{5};
    EXPECT_EQ(__wrap_pthread_attr_setschedparam(attr, &five), 0);
    sched_param read{};
    real::pthread_attr_getschedparam(attr, &read);
    EXPECT_EQ(read.sched_priority, 15);

    EXPECT_EQ(__wrap_pthread_setschedparam(pthread_self(), SCHED_RR, &five), 0);
    EXPECT_EQ(thread_info(gettid()).policy, SCHED_RR);
    EXPECT_EQ(thread_info(gettid()).priority, 15);
    int policy = -1;
    EXPECT_EQ(__wrap_pthread_getschedparam(pthread_self(), &policy, &read), 0);
    EXPECT_EQ(policy, SCHED_RR);
    EXPECT_EQ(read.sched_priority, 5);
    EXPECT_EQ(__wrap_pthread_getschedparam(pthread_self(), &policy, nullptr), 0);
    for (int any : {SCHED_OTHER, SCHED_FIFO, -1}) {
        EXPECT_EQ(__wrap_sched_get_priority_min(any), -20);
        EXPECT_EQ(__wrap_sched_get_priority_max(any), 40);
    }

    const sched_param high{90}; // the range is the system's
    const auto beyond = [&high] {
        EXPECT_EQ(__wrap_pthread_setschedparam(pthread_self(), SCHED_FIFO, &high), EINVAL);
        errno = 0;
        EXPECT_EQ(__wrap_pthread_attr_setschedparam(Attributes{1}, &high), EINVAL);
        EXPECT_EQ(errno, EINVAL);
    };
    EXPECT_EQ(printed_on(2, beyond),
              "_w_pthread_attr_setschedparam; _r_pthread_attr_setschedparam: Invalid argument\n");
}

TEST(AttributeObject, HasTheKernelsStackPolicy) {
    alignas(16) static char stack[16384];
    pthread_attr_t attr;
    EXPECT_EQ(__wrap_pthread_attr_init(&attr), 0);
    const auto expect_stack = [&attr](void* expected_address, size_t expected_size) {
        void* address = &attr;
        size_t size = 0;
        EXPECT_EQ(__wrap_pthread_attr_getstack(&attr, &address, &size), 0);
        EXPECT_EQ(address, expected_address);
        EXPECT_EQ(size, expected_size);
        real::pthread_attr_getstack(&attr, &address, &size);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(address),
                  expected_address != nullptr ? reinterpret_cast<uintptr_t>(expected_address)
                                              : uintptr_t{0} - expected_size);
    };
    expect_stack(nullptr, 16384);
    struct Case {
        void* address;
        size_t given, recorded;
    };
    for (const Case& c :
         {Case{nullptr, 4096, 16384}, Case{nullptr, 50000, 50000}, Case{stack, 1, 16384}}) {
        EXPECT_EQ(__wrap_pthread_attr_setstack(&attr, c.address, c.given), 0);
        expect_stack(c.address, c.recorded);
    }
    interposed::pthread_attr_init = [](auto) { return ENOMEM; };
    EXPECT_EQ(printed_on(2, [&] { EXPECT_EQ(__wrap_pthread_attr_init(&attr), ENOMEM); }),
              "__w_pthread_attr_init; __r_pthread_attr_init failed: Cannot allocate memory\n");
}

TEST(Names, AreShortenedToTheSystemsLimit) {
    for (const auto& [given, shown] : {std::pair{"", ""},
                                       {"fifteen_letters", "fifteen_letters"},
                                       {"sixteen__letters", "sixteen__lette~"},
                                       {"a name of far too many letters", "a name of far ~"}}) {
        EXPECT_EQ(__wrap_pthread_setname_np(pthread_self(), given), 0);
        EXPECT_EQ(thread_info(gettid()).status["Name"], shown);
    }
}

TEST(Affinity, PlacesTheCallingThread) {
    std::vector<size_t> chosen;
    interposed::pthread_setaffinity_np = [&](pthread_t, size_t size, const cpu_set_t* set) {
        EXPECT_EQ(size, 128u);
        chosen.clear();
        for (size_t cpu = 0; cpu < 1024; ++cpu) {
            if (CPU_ISSET(cpu, set))
                chosen.push_back(cpu);
        }
        return 77;
    };
    num_processors = 4;
    EXPECT_EQ(setThreadAffinityCPU(6), 77);
    EXPECT_THAT(chosen, ElementsAre(2));
    setThreadAffinityAllCpus();
    EXPECT_THAT(chosen, ElementsAre(0, 1, 2, 3));
    setThreadAffinityCPU0();
    EXPECT_THAT(chosen, ElementsAre(0));
    num_processors = 3000;
    setThreadAffinityCPU(2000);
    EXPECT_THAT(chosen, IsEmpty());
}

TEST(Affinity, IsReadBackAsBitsOnceTheCountIsKnown) {
    EXPECT_EQ(getThreadAffinityCPU(), 0u);
    const int count = getNumOfCpus();
    EXPECT_EQ(count, sysconf(_SC_NPROCESSORS_ONLN));
    EXPECT_EQ(setThreadAffinityCPU(count - 1), 0);
    EXPECT_EQ(getThreadAffinityCPU(), 1u << (count - 1));
    for (int any : {INT_MIN, INT_MAX})
        EXPECT_EQ(setThreadAffinityCPU(any), 0);
    num_processors = 40; // more than a word has bits
    interposed::pthread_getaffinity_np = [](auto, auto, cpu_set_t* set) {
        CPU_ZERO(set);
        for (size_t cpu : {2u, 31u, 32u, 33u, 39u})
            CPU_SET(cpu, set);
        return 0;
    };
    EXPECT_EQ(getThreadAffinityCPU(), 0x80000004u);
    interposed::pthread_getaffinity_np = [](auto...) { return EFAULT; };
    EXPECT_EQ(getThreadAffinityCPU(), 0u);
}

TEST(Affinity, CountIsTheLastLinePrintedAndAtLeastOne) {
    interrupt_calls();
    for (const auto& [command, expected] :
         {std::pair{"sleep 0.1; printf '3\n6\n'", 6}, {"true", 1}, {"echo 0", 1}, {"echo x", 1}}) {
        num_processors = 0;
        interposed::popen = [instead = command](const char* given, const char* mode) {
            EXPECT_STREQ(given, "grep -c processor /proc/cpuinfo");
            EXPECT_STREQ(mode, "r");
            return real::popen(instead, mode);
        };
        EXPECT_EQ(getNumOfCpus(), expected) << command;
        EXPECT_EQ(num_processors, expected);
    }
    num_processors = 0;
    interposed::popen = [](auto...) { return nullptr; };
    EXPECT_EXIT(getNumOfCpus(), testing::ExitedWithCode(1), "^$");
}

} // namespace
