// Linked as an application is: what it calls by the system's names lands in the library.
#include "support/capture.hpp"
#include "support/emulation.hpp"

#include <zelkernel/interrupt_manager.hpp>
#include <zelkernel/kernel.h>
#include <zelkernel/locks.h>

#include <cerrno>
#include <csignal>
#include <dlfcn.h>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace {

using zel::test::printed_on;
using zel::test::prints_only;

TEST(Wrapping, EveryListedFunctionIsDefined) {
    std::ifstream list(ZEL_WRAPPED_FUNCTIONS_FILE);
    int names = 0;
    for (std::string name; std::getline(list, name);) {
        if (name.empty() || name.front() == '#')
            continue;
        ++names;
        EXPECT_NE(dlsym(RTLD_DEFAULT, ("__wrap_" + name).c_str()), nullptr) << name;
    }
    EXPECT_EQ(names, 35);
}

void* do_nothing(void*) {
    return nullptr;
}

struct CountedOnce {
    explicit CountedOnce(int& count) { ++count; }
};

void reach_static(int& count) {
    static const CountedOnce object{count};
}

TEST(Wrapping, LandsInTheLibrary) {
    kernel_priorities = {0, 0, 0, 0, 0, 0, -7, 77, 10};
    EXPECT_EQ(sched_get_priority_min(SCHED_FIFO), -7);
    EXPECT_EQ(sched_get_priority_max(SCHED_FIFO), 77);

    pthread_attr_t attr;
    void* address = &attr;
    size_t size = 0;
    pthread_attr_init(&attr);
    pthread_attr_setstack(&attr, nullptr, 20000);
    pthread_attr_getstack(&attr, &address, &size);
    EXPECT_EQ(address, nullptr);
    EXPECT_EQ(size, 20000u);
    sched_param param{5};
    pthread_attr_setschedpolicy(&attr, SCHED_FIFO);
    pthread_attr_setschedparam(&attr, &param);
    pthread_attr_getschedparam(&attr, &param); // is not wrapped
    EXPECT_EQ(param.sched_priority, 15);
    EXPECT_EQ(pthread_setname_np(pthread_self(), "a name of far too many letters"), 0);

    pthread_mutexattr_t mutex_attr;
    int value = -1;
    pthread_mutexattr_init(&mutex_attr);
    pthread_mutexattr_getprotocol(&mutex_attr, &value);
    EXPECT_EQ(value, PTHREAD_PRIO_INHERIT);
    pthread_mutexattr_setprotocol(&mutex_attr, PTHREAD_PRIO_PROTECT);
    pthread_mutexattr_setprioceiling(&mutex_attr, 9);
    pthread_mutex_t ceiling;
    pthread_mutex_init(&ceiling, &mutex_attr);
    pthread_mutex_setprioceiling(&ceiling, 12, &value);
    EXPECT_EQ(value, 9);
    pthread_mutex_getprioceiling(&ceiling, &value);
    EXPECT_EQ(value, 12);

    starttimeInNs = 1;
    const int64_t now = [] {
        timespec tp;
        clock_gettime(CLOCK_MONOTONIC, &tp);
        starttimeInNs = tp.tv_sec * int64_t{1'000'000'000} + tp.tv_nsec;
        clock_gettime(CLOCK_MONOTONIC, &tp);
        return tp.tv_sec * int64_t{1'000'000'000} + tp.tv_nsec;
    }();
    EXPECT_LT(now, 60'000'000'000);

    int initialised = 0;
    for (int i = 0; i < 3; ++i)
        reach_static(initialised);
    EXPECT_EQ(initialised, 1);

    zel_disable_posix_locks();
    sem_t* const sem = reinterpret_cast<sem_t*>(64);
    pthread_mutex_t* const mutex = reinterpret_cast<pthread_mutex_t*>(64);
    const timespec time{};
    EXPECT_EQ(sem_wait(sem) + sem_trywait(sem) + sem_timedwait(sem, &time) + sem_post(sem), 0);
    EXPECT_EQ(pthread_mutex_lock(mutex) + pthread_mutex_trylock(mutex) +
                  pthread_mutex_timedlock(mutex, &time) + pthread_mutex_unlock(mutex),
              0);
    pthread_t thread = 1;
    const std::string line = printed_on(
        2, [&] { EXPECT_EQ(pthread_create(&thread, nullptr, do_nothing, nullptr), EPERM); });
    EXPECT_EQ(line, "__w_pthread_create; posix locks are disabled: Operation not permitted\n");
    EXPECT_EQ(thread, 0u);
    zel_enable_posix_locks();
}

TEST(Platform, IsNamedWhenItIsMissingAndNeeded) {
    kernel_priorities.interrupt_thread_priority = 5;
    const auto serve = [] {
        Linux::LinuxInterruptMgr manager;
        pause();
    };
    EXPECT_EXIT(
        serve(), testing::KilledBySignal(SIGABRT),
        prints_only("src/InterruptPlatform:[0-9]+ openLinuxInterruptPulseFd is missing: [^\n]*\n"));
    // Nothing is attached, nothing can come: no need to stop.
    Linux::LinuxInterruptSource{0, 5, 0, 1, true}.disable();
}

} // namespace
