#include "support/wait.hpp"

#include <zelkernel/interrupt_pulse.h>
#include <zelkernel/simulated_platform.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace {

class SimulatedPlatform : public testing::Test {
protected:
    ~SimulatedPlatform() override { close(fd); }

    static void attach(int vector, int& source) {
        void* id = attachLinuxInterruptSource(vector, 1, &source);
        ASSERT_NE(id, nullptr);
        std::free(id);
    }
    // The source of the next pulse; null when there is none to be had, or the pulse is nobody's.
    void* next() const {
        pollfd readable{fd, POLLIN, 0};
        return poll(&readable, 1, 0) == 1 ? waitForLinuxInterruptPulse(fd) : nullptr;
    }

    const int fd = openLinuxInterruptPulseFd();
    int first = 0, second = 0;
};

TEST_F(SimulatedPlatform, HoldsPulsesOfAMaskedLineAndDeliversEachAfterAnEnable) {
    attach(7, first);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(zel_simulated_raise(7), 0);
    EXPECT_EQ(next(), nullptr);
    attach(7, second); // in place of the first
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(enableLinuxInterruptSource(7), 0);
        EXPECT_EQ(enableLinuxInterruptSource(7), 0); // enabling twice delivers no more than one
        EXPECT_EQ(next(), &second);
        EXPECT_EQ(next(), nullptr);
    }
    enableLinuxInterruptSource(7);
    EXPECT_EQ(next(), nullptr);
}

TEST_F(SimulatedPlatform, ServesDeliverableLinesInOrderAndWithdrawsAtDisableAndDetach) {
    attach(1, first);
    attach(2, second);
    enableLinuxInterruptSource(1);
    enableLinuxInterruptSource(2);
    for (int vector : {2, 2, 1})
        zel_simulated_raise(vector);
    EXPECT_EQ(next(), &second);
    enableLinuxInterruptSource(2);
    EXPECT_EQ(disableLinuxInterruptSource(1), 0); // a pulse in flight
    EXPECT_EQ(next(), &second);
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

TEST_F(SimulatedPlatform, ReportsWhatItRefusesAndAnInterruptedWait) {
    EXPECT_EQ(attachLinuxInterruptSource(-1, 1, &first), nullptr);
    EXPECT_EQ(std::exchange(errno, 0), EINVAL);
    EXPECT_EQ(attachLinuxInterruptSource(1, 1, nullptr), nullptr);
    EXPECT_EQ(errno, EINVAL);
    for (auto* call : {zel_simulated_raise, enableLinuxInterruptSource, disableLinuxInterruptSource,
                       detachLinuxInterruptSource}) {
        errno = 0;
        EXPECT_EQ(call(99), -1);
        EXPECT_EQ(errno, ENXIO);
    }
    zel::test::interrupt_calls();
    EXPECT_EQ(waitForLinuxInterruptPulse(fd), nullptr);
}

} // namespace
