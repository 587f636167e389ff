// Skips every case of the program it is linked into when real-time priorities are not permitted.
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <sched.h>

namespace {

bool may_be_fifo() {
    const sched_param highest{99}, none{0};
    return sched_setscheduler(0, SCHED_FIFO, &highest) == 0 &&
           sched_setscheduler(0, SCHED_OTHER, &none) == 0;
}

struct SkipWithoutRights : testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo&) override {
        if (!may_be_fifo())
            GTEST_SKIP() << "no right to real-time priorities: " << std::strerror(errno);
    }
};

const bool is_listening = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new SkipWithoutRights);
    return true;
}();

} // namespace
