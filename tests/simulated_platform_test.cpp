#include <zelkernel/interrupt_pulse.h>
#include <zelkernel/simulated_platform.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <poll.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

class SimulatedPlatform : public testing::Test {
protected:
    ~SimulatedPlatform() override { close(fd); }

    void attach(int vector, int& source) {
        void* id = attachLinuxInterruptSource(vector, 1, &source);
        ASSERT_NE(id, nullptr);
        std::free(id);
    }
    // The source of the next pulse; null when there is none to be had, or the pulse is nobody's.
    void* next() {
        pollfd readable{fd, POLLIN, 0};
        return poll(&readable, 1, 0) == 1 ? waitForLinuxInterruptPulse(fd) : nullptr;
    }

    const int fd = openLinuxInterruptPulseFd();
    int first = 0, second = 0;
};

TEST_F(SimulatedPlatform, HoldsPulsesOfAMaskedLineAndDeliversEachAfterAnEnable) {
    attach(7, first);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(zel_simulated_raise(7), 0);
    }
    EXPECT_EQ(next(), nullptr);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(enableLinuxInterruptSource(7), 0);
        EXPECT_EQ(enableLinuxInterruptSource(7), 0); // enabling twice delivers no more than one
        EXPECT_EQ(next(), &first);
        EXPECT_EQ(next(), nullptr);
    }
    enableLinuxInterruptSource(7);
    EXPECT_EQ(next(), nullptr);
}

TEST_F(SimulatedPlatform, ServesLinesInTheOrderInWhichTheyBecameDeliverable) {
    attach(1, first);
    attach(2, second);
    enableLinuxInterruptSource(1);
    enableLinuxInterruptSource(2);
    for (int vector : {2, 2, 1}) {
        zel_simulated_raise(vector);
    }
    EXPECT_EQ(next(), &second);
    enableLinuxInterruptSource(2);
    EXPECT_EQ(next(), &first);
    EXPECT_EQ(next(), &second);
}

TEST_F(SimulatedPlatform, WithdrawsAPulseInFlightAtDisableAndDropsItAtDetach) {
    attach(1, first);
    enableLinuxInterruptSource(1);
    zel_simulated_raise(1);
    EXPECT_EQ(disableLinuxInterruptSource(1), 0);
    EXPECT_EQ(next(), nullptr);
    enableLinuxInterruptSource(1);
    EXPECT_EQ(next(), &first);

    enableLinuxInterruptSource(1);
    zel_simulated_raise(1);
    EXPECT_EQ(detachLinuxInterruptSource(1), 0);
    attach(1, second);
    enableLinuxInterruptSource(1);
    EXPECT_EQ(next(), nullptr);
    zel_simulated_raise(1);
    EXPECT_EQ(next(), &second);
}

TEST_F(SimulatedPlatform, ReplacesTheSourceOfAnAttachedVectorAndKeepsItsPulses) {
    attach(1, first);
    zel_simulated_raise(1);
    attach(1, second);
    enableLinuxInterruptSource(1);
    EXPECT_EQ(next(), &second);
}

TEST_F(SimulatedPlatform, ReportsWhatItRefuses) {
    errno = 0;
    EXPECT_EQ(attachLinuxInterruptSource(-1, 1, &first), nullptr);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(attachLinuxInterruptSource(1, 1, nullptr), nullptr);
    EXPECT_EQ(errno, EINVAL);
    for (auto* call : {zel_simulated_raise, enableLinuxInterruptSource, disableLinuxInterruptSource,
                       detachLinuxInterruptSource}) {
        errno = 0;
        EXPECT_EQ(call(99), -1);
        EXPECT_EQ(errno, ENXIO);
    }
}

TEST_F(SimulatedPlatform, AnInterruptedWaitGivesNull) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, nullptr);
    ualarm(10000, 10000); // again and again: the first may come before the wait
    EXPECT_EQ(waitForLinuxInterruptPulse(fd), nullptr);
}

TEST_F(SimulatedPlatform, LosesNoPulseOfConcurrentRaisers) {
    constexpr int raisers = 4, each = 5000;
    int sources[2] = {};
    for (int vector : {0, 1}) {
        attach(vector, sources[vector]);
        enableLinuxInterruptSource(vector);
    }
    std::vector<std::thread> threads;
    for (int raiser = 0; raiser < raisers; ++raiser) {
        threads.emplace_back([raiser] {
            for (int i = 0; i < each; ++i) {
                zel_simulated_raise(raiser % 2);
            }
        });
    }
    for (int served = 0; served < raisers * each; ++served) {
        auto* source = static_cast<int*>(waitForLinuxInterruptPulse(fd));
        ASSERT_NE(source, nullptr);
        ++*source;
        enableLinuxInterruptSource(static_cast<int>(source - sources));
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(sources[0], raisers / 2 * each);
    EXPECT_EQ(sources[1], raisers / 2 * each);
    EXPECT_EQ(next(), nullptr);
}

} // namespace
