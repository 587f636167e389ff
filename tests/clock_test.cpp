#include "support/test.hpp"

using zel::test::SystemTime;
ZEL_INTERPOSE_TIME(int, nanosleep, (const SystemTime* r, SystemTime* left), (r, left))
ZEL_INTERPOSE_TIME(int, clock_gettime, (clockid_t c, SystemTime* t), (c, t))
ZEL_INTERPOSE_TIME(int, clock_settime, (clockid_t c, const SystemTime* t), (c, t))

namespace {

long long ns(const auto& t) {
    return t.tv_sec * 1'000'000'000LL + t.tv_nsec;
}

TEST(Sleep, AsksForItsTimeAndGoesOnWithWhatRemained) {
    std::vector<long long> requests;
    int interruptions = 0, last_error = 0;
    interposed::nanosleep = [&](const SystemTime* request, SystemTime* left) {
        requests.push_back(ns(*request));
        EXPECT_EQ(request, left);
        if (interruptions-- > 0) {
            *left = {request->tv_sec / 2, 7};
            errno = EINTR;
            return -1;
        }
        errno = last_error;
        return last_error == 0 ? 0 : -1;
    };
    struct Case {
        std::function<int()> call;
        long long request;
    };
    for (const Case& c :
         {Case{[] { return __wrap_sleep(3); }, 3'000'000'000},
          Case{[] { return __wrap_sleep(UINT_MAX); },
               (sizeof(long) == 4 ? 2'147'483'647 : 4'294'967'295) * 1'000'000'000},
          Case{[] { return __wrap_usleep(2'500'000); }, 2'500'000'000},
          Case{[] { return __wrap_usleep(4'294'967'295); }, 4'294'967'295'000},
          Case{[] { return __wrap_usleep(0); }, 0},
          Case{[] { return sleepMs(1500); }, 1'500'000'000}, Case{[] { return sleepMs(0); }, 0},
          Case{[] { return sleepMs(-5); }, -5'000'000}}) {
        for (int error : {0, EINVAL}) {
            requests.clear();
            interruptions = 2;
            last_error = error;
            EXPECT_EQ(c.call(), error == 0 ? 0 : -1);
            const long long half = c.request / 1'000'000'000 / 2, quarter = half / 2;
            EXPECT_EQ(requests, (std::vector<long long>{c.request, half * 1'000'000'000 + 7,
                                                        quarter * 1'000'000'000 + 7}));
        }
    }
}

TEST(Clock, MonotonicCountsFromTheStartTime) {
    struct Case {
        int64_t start;
        SystemTime now;
        timespec uptime;
    };
    for (const Case& c : {Case{0, {8, 300'000'000}, {8, 300'000'000}},
                          Case{5'500'000'000, {8, 300'000'000}, {2, 800'000'000}},
                          Case{5'500'000'000, {5, 500'000'000}, {0, 0}},
                          Case{5'500'000'000, {6, 500'000'001}, {1, 1}}}) {
        interposed::clock_gettime = [now = c.now](clockid_t, SystemTime* tp) {
            *tp = now;
            return 0;
        };
        for (bool with_timespec : {false, true}) { // one alone decides, also when set by hand
            starttimeInNs = c.start;
            starttime = with_timespec ? timespec{static_cast<time_t>(c.start / 1'000'000'000),
                                                 static_cast<long>(c.start % 1'000'000'000)}
                                      : timespec{};
            timespec uptime{}, clock{};
            EXPECT_EQ(zel_get_uptime(&uptime), 0);
            EXPECT_EQ(__wrap_clock_gettime(CLOCK_MONOTONIC, &clock), 0);
            EXPECT_EQ(ns(uptime), ns(c.uptime));
            EXPECT_EQ(ns(clock), ns(c.uptime));
            EXPECT_EQ(zel_get_starttime_in_ns(), c.start);
            for (clockid_t other = CLOCK_REALTIME; other <= CLOCK_TAI; ++other) {
                EXPECT_EQ(__wrap_clock_gettime(other, &clock), 0);
                EXPECT_EQ(ns(clock), other == CLOCK_MONOTONIC ? ns(c.uptime) : ns(c.now)) << other;
            }
        }
    }
    interposed::clock_gettime = [](auto...) { return -1; };
    timespec untouched{4, 5};
    EXPECT_EQ(zel_get_uptime(&untouched), -1);
    EXPECT_EQ(__wrap_clock_gettime(CLOCK_MONOTONIC, &untouched), -1);
    EXPECT_EQ(ns(untouched), 4'000'000'005);
}

TEST(Clock, ReportsTheSystemsTimeBeforeEachChangeToTheCallback) {
    starttimeInNs = 100'000'000'000;
    static std::vector<std::string> events;
    interposed::clock_gettime = [](clockid_t clock, SystemTime* tp) {
        events.push_back("get " + std::to_string(clock));
        *tp = {111, 222};
        return 0;
    };
    int result = 0;
    interposed::clock_settime = [&](clockid_t clock, const SystemTime* tp) {
        events.push_back("set " + std::to_string(clock) + " " + std::to_string(tp->tv_sec));
        errno = EPERM;
        return result;
    };
    const zel_update_rtc_func callback = [](clockid_t clock, timespec* before) {
        events.push_back("was " + std::to_string(clock) + " " + std::to_string(before->tv_sec) +
                         "." + std::to_string(before->tv_nsec));
        errno = ENOENT;
    };
    const timespec target{333, 0};
    for (int each : {0, -1}) {
        result = each;
        updateRTCFunc = callback;
        for (clockid_t clock : {CLOCK_REALTIME, CLOCK_MONOTONIC})
            EXPECT_EQ(__wrap_clock_settime(clock, &target), each);
        EXPECT_EQ(errno, EPERM);
        updateRTCFunc = nullptr;
        EXPECT_EQ(__wrap_clock_settime(CLOCK_TAI, &target), each);
        EXPECT_THAT(std::exchange(events, {}),
                    testing::ElementsAre("get 0", "set 0 333", "was 0 111.222", "get 1",
                                         "set 1 333", "was 1 111.222", "get 11", "set 11 333"));
    }
}

// Whoever can hold the time is given it; what 32 bits cannot hold is refused as by the C library.
TEST(Clock, GoesOnAfterJanuary2038) {
    constexpr int64_t late = 2'200'000'000;
    constexpr bool fits = sizeof(time_t) == 8;
    interposed::clock_gettime = [](clockid_t, SystemTime* tp) {
        *tp = {late, 5};
        return 0;
    };
    starttimeInNs = (late - 10) * 1'000'000'000;
    timespec uptime{}, time{4, 5};
    EXPECT_EQ(zel_get_uptime(&uptime), 0);
    EXPECT_EQ(ns(uptime), 10'000'000'005);
    EXPECT_EQ(__wrap_clock_gettime(CLOCK_MONOTONIC, &uptime), 0);
    EXPECT_EQ(ns(uptime), 10'000'000'005);
    errno = 0;
    EXPECT_EQ(__wrap_clock_gettime(CLOCK_REALTIME, &time), fits ? 0 : -1);
    EXPECT_EQ(errno, fits ? 0 : EOVERFLOW);
    EXPECT_EQ(ns(time), fits ? late * 1'000'000'000 + 5 : 4'000'000'005);

    interposed::clock_settime = [](auto...) { return 0; };
    static long long before = -1;
    updateRTCFunc = [](clockid_t, timespec* was) { before = ns(*was); };
    EXPECT_EQ(__wrap_clock_settime(CLOCK_REALTIME, &uptime), 0);
    EXPECT_EQ(before, fits ? late * 1'000'000'000 + 5 : 0);
}

TEST(StaticObjectGuard, IsItsFirstByte) {
    unsigned char guard[8] = {0, 9, 9, 9, 9, 9, 9, 9};
    EXPECT_EQ(__wrap___cxa_guard_acquire(guard), 1);
    __wrap___cxa_guard_abort(guard);
    EXPECT_EQ(__wrap___cxa_guard_acquire(guard), 1);
    __wrap___cxa_guard_release(guard);
    EXPECT_EQ(__wrap___cxa_guard_acquire(guard), 0);
    EXPECT_EQ(guard[0], 1);
    EXPECT_EQ(guard[1], 9);
}

} // namespace
