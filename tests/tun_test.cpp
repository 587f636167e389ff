#include "support/allocation_failure.hpp"
#include "support/capture.hpp"
#include "support/commands.hpp"
#include "support/private_namespaces.hpp"
#include "support/wait.hpp"

#include <zelkernel/routing.h>
#include <zelkernel/threads.h>
#include <zelkernel/tun.h>

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>

ZEL_INTERPOSE(int, pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t* attr),
              (mutex, attr), noexcept)
ZEL_INTERPOSE(int, pipe2, (int* ends, int flags), (ends, flags), noexcept)
ZEL_INTERPOSE(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size), )

using testing::ElementsAre;
using testing::EndsWith;
using zel::test::eventually;
using zel::test::printed_on;
using zel::test::record_commands;
using zel::test::shell;

namespace {

void receive(int, void*, int) {}
void alloc_buffer(void** handle, void**, int) {
    *handle = nullptr;
}
void free_buffer(void*) {}

std::vector<pthread_t> threads_of_the_library() {
    std::vector<pthread_t> ids(10);
    unsigned int count = 0;
    getCopyOfCurrentPthreadIds(ids.data(), 10, &count);
    ids.resize(count);
    return ids;
}

void start_receive_thread() {
    zel_tun_packet_init(receive, alloc_buffer, free_buffer, 10);
}

// The process's open files whose names contain a text.
int open_files(const char* text = "") {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator{"/proc/self/fd"}) {
        std::error_code closed_meanwhile;
        const auto name = std::filesystem::read_symlink(entry, closed_meanwhile).string();
        count += name.find(text) != std::string::npos;
    }
    return count;
}

void allow_descriptors(rlim_t count) {
    const rlimit limit{count, count};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

class Tun : public testing::Test {
protected:
    void SetUp() override {
        if (!zel::test::enter_private_namespaces())
            GTEST_SKIP() << "namespaces and TUN devices need root: " << strerror(errno);
    }

    char text[500] = "old";
};

// The devices of an instance, as Linux knows them.
std::string devices_of(const std::string& name) {
    return shell("ip netns exec " + name + " ls /sys/class/net | grep tun | tr '\n' ' '");
}

TEST_F(Tun, StopsWithTheReasonWhenAnEssentialCallFails) {
    EXPECT_DEATH(
        {
            interposed::pthread_mutex_init = [](auto...) { return ENOMEM; };
            zel_tun_init();
        },
        "src/zel_tun:848 Failed to initialize FD map mutex\n");
    EXPECT_DEATH(
        {
            interposed::pipe2 = [](auto...) { return -1; };
            zel_tun_init();
        },
        "src/zel_tun:872 Failed to create rx packet wakeup pipe\n");
    EXPECT_DEATH(
        {
            zel_tun_init();
            interposed::write = [](auto...) {
                errno = EPIPE;
                return ssize_t{-1};
            };
            zel_tun_ipv4_destroy(nullptr, 0, "red", 3);
        },
        "src/zel_tun:284 wakeup_zel_tun_packet_receive\\(\\) write failed\n");
    EXPECT_DEATH(
        {
            signal(SIGUSR1, [](int) {});
            zel_tun_init();
            start_receive_thread();
            const pthread_t thread = threads_of_the_library().at(0);
            eventually([thread] { return pthread_kill(thread, SIGUSR1) != 0; });
        },
        "src/zel_tun:744 rx packet select\\(\\) failure\n");
}

TEST_F(Tun, WithoutADriverRunsCommandsAndNothingElse) {
    ASSERT_EQ(mount("none", "/dev/net", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(printed_on(1, zel_tun_init), "No IP stack synchronization.\r\n");
    const auto before = open_files();
    start_receive_thread();
    EXPECT_TRUE(eventually([] { return threads_of_the_library().empty(); }));
    zel_tun_ipv4_create(text, sizeof text, "red", 3);
    EXPECT_THAT(text, EndsWith("Unable to open /dev/net/tun.\r\n"));
    auto& commands = record_commands(true);
    zel_tun_ipv4_status(text, sizeof text, "red", 3, true);
    EXPECT_EQ(commands.take().size(), 1u);
    // The wake-up has no pipe to go to, nor any other descriptor.
    EXPECT_EQ(printed_on(0, [this] { zel_tun_ipv4_destroy(text, 0, "red", 3); }), "");
    EXPECT_STREQ(text, "");
    EXPECT_EQ(open_files(), before);
}

TEST_F(Tun, CreatesAndDestroysDevicesInTheirInstance) {
    zel_tun_init();
    auto& commands = record_commands(false);
    zel_vrf_create(nullptr, 0, "red");
    commands.take();
    zel_tun_ipv4_create(nullptr, 0, "red", 3);
    zel_tun_ipv6_create(text, sizeof text, "red", -3);
    EXPECT_STREQ(text, "");
    EXPECT_THAT(commands.take(), ElementsAre("ip tuntap add dev tun4_3 mode tun 2>&1",
                                             "ip link set dev tun4_3 netns \"red\" 2>&1",
                                             "ip tuntap add dev tun6_-3 mode tun 2>&1",
                                             "ip link set dev tun6_-3 netns \"red\" 2>&1"));
    EXPECT_EQ(devices_of("red"), "tun4_3 tun6_-3 ");
    zel_tun_ipv6_create(text, sizeof text, "nowhere", -2147483648); // too long a name for Linux
    EXPECT_THAT(text,
                testing::HasSubstr("\"tun6_-2147483648\" is wrong: \"dev\" not a valid ifname"));
    EXPECT_THAT(shell("ip -br link"), testing::HasSubstr("tun6_-214748364 "));
    EXPECT_EQ(open_files("/dev/net/tun"), 3);

    zel_tun_ipv6_destroy(nullptr, 0, "nowhere", -2147483648);
    std::strcpy(text, "old");
    zel_tun_ipv6_destroy(text, 0, "red", -3);
    EXPECT_EQ(std::string(text, 3), std::string("\0ld", 3));
    zel_tun_ipv4_destroy(nullptr, 0, "red", 7);
    EXPECT_EQ(open_files("/dev/net/tun"), 1);
    commands.take();
    start_receive_thread();
    zel_tun_ipv4_destroy(nullptr, 0, "red", 3);
    EXPECT_TRUE(eventually([] { return devices_of("red").empty(); }));
    EXPECT_EQ(open_files("/dev/net/tun"), 0);
    auto deletions = commands.take();
    std::erase_if(deletions, [](auto& each) { return each.find("tuntap") == std::string::npos; });
    EXPECT_THAT(
        deletions,
        ElementsAre("ip netns exec \"nowhere\" ip tuntap del dev tun6_-2147483648 mode tun 2>&1",
                    "ip netns exec \"red\" ip tuntap del dev tun6_-3 mode tun 2>&1",
                    "ip netns exec \"red\" ip tuntap del dev tun4_7 mode tun 2>&1",
                    "ip netns exec \"red\" ip tuntap del dev tun4_3 mode tun 2>&1"));

    zel_tun_ipv4_create(nullptr, 0, "red", 3);
    zel_vrf_destroy(text, sizeof text, "red"); // forgets the device and leaves it open
    EXPECT_STREQ(text, "");
    commands.take();
    zel_tun_ipv4_destroy(nullptr, 0, "red", 3);
    EXPECT_TRUE(eventually([&] { return !commands.take().empty(); }));
    EXPECT_EQ(open_files("/dev/net/tun"), 1);
}

TEST_F(Tun, ReportsAFailedCreationAndLeavesNothingBehind) {
    zel_tun_init();
    zel_vrf_create(nullptr, 0, "red");
    zel_tun_ipv4_create(text, sizeof text, "red", 3);
    const auto expect_failure = [this](const char* report) {
        const auto before = open_files();
        zel_tun_ipv4_create(text, sizeof text, "red", 4);
        EXPECT_THAT(text, EndsWith(report));
        EXPECT_EQ(open_files(), before);
    };
    ifreq request{};
    std::strcpy(request.ifr_name, "tun4_4");
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    const int busy = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    ASSERT_EQ(ioctl(busy, TUNSETIFF, &request), 0);
    expect_failure("ioctl() failed for tun4_4\r\n");
    close(busy);

    allow_descriptors(1100);
    while (fcntl(0, F_DUPFD_CLOEXEC, 0) < FD_SETSIZE - 1) {
    }
    expect_failure("Descriptor 1024 is too large for tun4_4\r\n");
    for (int fd = FD_SETSIZE - 20; fd < FD_SETSIZE; ++fd)
        close(fd);
    ASSERT_EQ(setenv("PATH", "/nowhere", 1), 0);
    zel_tun_ipv4_create(text, sizeof text, "red", 5);
    EXPECT_STREQ(text, "sh: 1: ip: not found\nsh: 1: ip: not found\n");
}

TEST_F(Tun, FillsThePipeOfAReceiveThreadThatWasNeverStartedWithoutWaiting) {
    zel_tun_init();
    for (int i = 0; i < 16500; ++i) // the pipe holds 16384 wake-ups
        zel_tun_ipv4_destroy(text, 0, "red", i);
}

TEST_F(Tun, ReportsALackOfMemoryAndIsAsItWas) {
    if (!zel::test::can_fail_allocations)
        GTEST_SKIP() << "the sanitizer's allocator cannot be made to fail";
    // The commands do nothing and fail nothing; TUNSETIFF makes the device.
    interposed::popen = [](const char*, const char* mode) {
        const int saved = std::exchange(zel::test::allocation_to_fail, 0);
        FILE* stream = real::popen(":", mode);
        setvbuf(stream, nullptr, _IONBF, 0);
        zel::test::allocation_to_fail = saved;
        return stream;
    };
    zel_tun_init();
    const char* const name = "an instance with a long name";
    const char* const report = "Out of memory.\r\n";
    const in_addr host{};
    const std::pair<std::function<void()>, const char*> operations[] = {
        {[&] { zel_vrf_create(text, sizeof text, name); }, report},
        {[&] { zel_external_traffic_match_criteria_add(text, sizeof text, 17, 65535, 1); }, report},
        {[&] { zel_tun_ipv4_create(text, sizeof text, name, 3); }, report},
        {[&] { zel_tun_ipv4_mtu(text, sizeof text, name, 3, 1400); }, report},
        {[&] { zel_ipv4_route_add(text, sizeof text, name, &host, 0, 0, nullptr, &host, 0); },
         report},
        {[&] { zel_external_traffic_match_criteria_del(text, sizeof text, 17, 65535, 1); }, report},
        {[&] { zel_tun_ipv4_destroy(text, 0, name, 3); }, ""},
        {[&] { zel_vrf_destroy(text, sizeof text, name); }, report},
    };
    for (const auto& [run, expected] : operations) {
        int allocations = 0;
        for (bool failed = true; failed; allocations += failed) {
            const auto before = open_files();
            zel::test::allocation_to_fail = allocations + 1;
            run();
            failed = std::exchange(zel::test::allocation_to_fail, 0) == 0;
            if (failed && (text != std::string{expected} || open_files() != before))
                ADD_FAILURE() << "allocation " << allocations << ": " << text;
        }
        EXPECT_GT(allocations, 0);
    }
    const auto printed = printed_on(2, [] {
        zel::test::allocation_to_fail = 1;
        start_receive_thread();
    });
    EXPECT_EQ(printed, "zel_tun_packet_init: Cannot allocate memory\n");
}

} // namespace
