// Linked as an application is: what it calls by the system's names lands in the library.
#include "support/test.hpp"

#include <dlfcn.h>

namespace {

using zel::test::prints_only;

TEST(Wrapping, EveryListedFunctionIsDefined) {
    std::istringstream list(ZEL_WRAPPED_FUNCTIONS);
    int names = 0;
    for (std::string name; list >> name; ++names)
        EXPECT_NE(dlsym(RTLD_DEFAULT, ("__wrap_" + name).c_str()), nullptr) << name;
    EXPECT_EQ(names, __TIMESIZE == 32 ? 40 : 35);
}

TEST(Wrapping, LandsInTheLibrary) {
    kernel_priorities = {0, 0, 0, 0, 0, 0, -7, 77, 10};
    EXPECT_EQ(sched_get_priority_min(SCHED_FIFO), -7);
    EXPECT_EQ(sched_get_priority_max(SCHED_FIFO), 77);
    EXPECT_EQ(pthread_setname_np(pthread_self(), "a name of far too many letters"), 0);
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    starttimeInNs += now.tv_sec * int64_t{1'000'000'000};
    clock_gettime(CLOCK_MONOTONIC, &now);
    EXPECT_LT(now.tv_sec, 60);

    EXPECT_EQ(posix_locks_enabled, 1);
    zel_disable_posix_locks();
    EXPECT_EQ(posix_locks_enabled, 0);
    // Addresses at which nothing may be read.
    sem_t* const sem = reinterpret_cast<sem_t*>(64);
    pthread_mutex_t* const mutex = reinterpret_cast<pthread_mutex_t*>(64);
    errno = 55;
    EXPECT_EQ(sem_wait(sem) + sem_trywait(sem) + sem_timedwait(sem, &now) + sem_post(sem), 0);
    EXPECT_EQ(pthread_mutex_lock(mutex) + pthread_mutex_trylock(mutex) +
                  pthread_mutex_timedlock(mutex, &now) + pthread_mutex_unlock(mutex),
              0);
    EXPECT_EQ(errno, 55);
    pthread_t thread = 1;
    EXPECT_EQ(pthread_create(
                  &thread, nullptr, [](void* p) { return p; }, nullptr),
              EPERM);
    EXPECT_EQ(thread, 0u);
    zel_enable_posix_locks();
}

TEST(Platform, IsNamedWhenItIsMissingAndNeeded) {
    kernel_priorities.interrupt_thread_priority = 5;
    EXPECT_EXIT(
        (Linux::LinuxInterruptMgr{}, pause()), testing::KilledBySignal(SIGABRT),
        prints_only("src/InterruptPlatform:[0-9]+ openLinuxInterruptPulseFd is missing: [^\n]*\n"));
    // Nothing is attached, nothing can come: no need to stop.
    Linux::LinuxInterruptSource{0, 5, 0, 1, true}.disable();
}

} // namespace
