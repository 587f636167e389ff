#include "support/allocation_failure.hpp"
#include "support/test.hpp"

using zel::test::SystemTime;
ZEL_INTERPOSE_TIME(int, pthread_cond_timedwait,
                   (pthread_cond_t * c, pthread_mutex_t* m, const SystemTime* t), (c, m, t))
ZEL_INTERPOSE(int, pthread_cond_init, (pthread_cond_t * c, const pthread_condattr_t* a), (c, a))
ZEL_INTERPOSE(int, pthread_cond_destroy, (pthread_cond_t * c), (c))

namespace {

using namespace zel::test;

struct Conditions : testing::Test {
    Conditions() {
        pthread_condattr_init(&monotonic);
        pthread_condattr_setclock(&monotonic, CLOCK_MONOTONIC);
        __wrap_pthread_mutex_init(&mutex, nullptr);
    }

    // Records the deadline that reaches the system instead of waiting.
    SystemTime passed_on(const timespec& deadline) {
        SystemTime passed{-1, -1};
        interposed::pthread_cond_timedwait = [&](auto, auto, const SystemTime* time) {
            passed = *time;
            return 123;
        };
        EXPECT_EQ(__wrap_pthread_cond_timedwait(&cond, &mutex, &deadline), 123);
        interposed::pthread_cond_timedwait = nullptr;
        return passed;
    }
    bool is_shifted() { return passed_on({1, 0}).tv_sec != 1; }

    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    pthread_condattr_t monotonic{};
    pthread_mutex_t mutex{};
};

void set_start_time(int64_t ns, bool with_timespec) {
    starttimeInNs = ns;
    starttime = {};
    if (with_timespec)
        starttime = {static_cast<time_t>(ns / 1'000'000'000),
                     static_cast<long>(ns % 1'000'000'000)};
}

TEST_F(Conditions, MonotonicDeadlinesAreMovedByTheStartTime) {
    struct Case {
        int64_t start;
        timespec given;
        SystemTime expected;
    };
    const Case cases[] = {
        {0, {10, 700'000'000}, {10, 700'000'000}},
        {5'500'000'000, {10, 700'000'000}, {16, 200'000'000}},
        {5'500'000'000, {10, 499'999'999}, {15, 999'999'999}},
        {5'500'000'000, {10, 500'000'000}, {16, 0}},
        {5'500'000'000, {0, 1'600'000'000}, {7, 100'000'000}}, // is not normalised
        {5'500'000'000, {3, -1}, {8, 499'999'999}},
        {7'000'000'000,
         {std::numeric_limits<time_t>::max(), 0},
         {std::numeric_limits<time_t>::min() + 6, 0}},
        {2'200'000'000'500'000'000, {10, 500'000'000}, {2'200'000'011, 0}}, // after January 2038
    };
    EXPECT_EQ(__wrap_pthread_cond_init(&cond, &monotonic), 0);
    for (const Case& c : cases) {
        for (bool with_timespec : {false, true}) {
            set_start_time(c.start, with_timespec);
            const SystemTime passed = passed_on(c.given);
            EXPECT_EQ(passed.tv_sec, c.expected.tv_sec) << &c - cases;
            EXPECT_EQ(passed.tv_nsec, c.expected.tv_nsec) << &c - cases;
        }
    }
}

TEST_F(Conditions, OtherClocksAndUnknownConditionsPassUnchanged) {
    set_start_time(5'500'000'000, true);
    EXPECT_FALSE(is_shifted()); // initialised statically
    EXPECT_EQ(__wrap_pthread_cond_init(&cond, &monotonic), 0);
    EXPECT_FALSE(is_shifted()); // what was recorded first stays ...
    EXPECT_EQ(__wrap_pthread_cond_destroy(&cond), 0);
    EXPECT_EQ(__wrap_pthread_cond_init(&cond, &monotonic), 0);
    EXPECT_TRUE(is_shifted()); // ... until the condition is destroyed
    EXPECT_EQ(__wrap_pthread_cond_init(&cond, nullptr), 0);
    EXPECT_TRUE(is_shifted());
    EXPECT_EQ(__wrap_pthread_cond_destroy(&cond), 0);
    EXPECT_EQ(__wrap_pthread_cond_init(&cond, nullptr), 0);
    EXPECT_FALSE(is_shifted());
}

TEST_F(Conditions, TheClockIsRecordedAndForgottenWhateverTheSystemSays) {
    set_start_time(5'500'000'000, true);
    interposed::pthread_cond_init = [](auto...) { return EAGAIN; };
    EXPECT_EQ(__wrap_pthread_cond_init(&cond, &monotonic), EAGAIN);
    EXPECT_TRUE(is_shifted());
    interposed::pthread_cond_destroy = [](auto) { return EBUSY; };
    EXPECT_EQ(__wrap_pthread_cond_destroy(&cond), EBUSY);
    EXPECT_FALSE(is_shifted());
    EXPECT_EQ(__wrap_pthread_cond_destroy(&cond), EBUSY);
}

TEST_F(Conditions, WithoutMemoryInitialisationFailsAndAWaitGoesOn) {
    SKIP_IF_ALLOCATIONS_CANNOT_FAIL();
    set_start_time(5'500'000'000, true);
    allocation_to_fail = 1;
    EXPECT_EQ(__wrap_pthread_cond_init(&cond, &monotonic), ENOMEM);
    SystemTime passed{};
    interposed::pthread_cond_timedwait = [&](auto, auto, const SystemTime* time) {
        passed = *time;
        return 0;
    };
    const timespec deadline{1, 0};
    allocation_to_fail = 1;
    EXPECT_EQ(__wrap_pthread_cond_timedwait(&cond, &mutex, &deadline), 0);
    EXPECT_EQ(allocation_to_fail, 0);
    EXPECT_EQ(passed.tv_sec, 1);
    EXPECT_EQ(__wrap_pthread_cond_init(&cond, &monotonic), 0); // nothing was remembered
    EXPECT_TRUE(is_shifted());
}

} // namespace
