// A program of objects with 32-bit and with 64-bit time: both see one kernel.
#include "time_widths_object.hpp"

#include "support/test.hpp"

namespace {

struct TimeWidths : testing::TestWithParam<int> {};

TEST_P(TimeWidths, AreOfOneKernel) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    const ApplicationObject& starter = GetParam() == 32 ? object32 : object64;
    const ApplicationObject& other = GetParam() == 32 ? object64 : object32;
    EXPECT_EQ(starter.width, GetParam());
    EXPECT_EQ(starter.width + other.width, 96);
    starter.start_kernel();
    other.start_kernel(); // comes too late, and changes nothing
    EXPECT_EQ(starter.set_clock(), -1);
    EXPECT_NE(starter.reported(), 0);
    EXPECT_EQ(other.reported(), 0);
    other.take_callback();

    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_t cond;
    pthread_cond_init(&cond, &attr);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_lock(&mutex);
    int64_t last = 0;
    for (const ApplicationObject* object : {&starter, &other}) {
        EXPECT_EQ(object->start_time(), starttimeInNs);
        const int64_t now = object->uptime();
        EXPECT_GE(now, last);
        EXPECT_LT(now, 60'000'000'000);
        EXPECT_EQ(object->wait_until(&cond, &mutex, now + 5'000'000), ETIMEDOUT);
        last = object->uptime();
        EXPECT_GE(last, now + 5'000'000);

        EXPECT_EQ(object->set_clock(), -1);
        const int64_t reported = starter.reported();
        EXPECT_GE(reported, starttimeInNs + last); // the system's time, not the kernel's
        EXPECT_EQ(other.reported(), reported);
    }
    pthread_mutex_unlock(&mutex);
}

INSTANTIATE_TEST_SUITE_P(StartedBy, TimeWidths, testing::Values(32, 64));

} // namespace
