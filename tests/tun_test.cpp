#include "support/commands.hpp"
#include "support/test.hpp"

#include <linux/if.h>
#include <linux/if_tun.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>

ZEL_INTERPOSE(int, pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t* attr),
              (mutex, attr))
ZEL_INTERPOSE(int, pipe, (int* ends), (ends))
ZEL_INTERPOSE(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size))
ZEL_INTERPOSE_TIME(int, select,
                   (int count, fd_set* in, fd_set* out, fd_set* other, timeval* timeout),
                   (count, in, out, other, timeout))

namespace {

using namespace zel::test;
using testing::ElementsAre;
using testing::HasSubstr;

char text[500];
constexpr size_t size = sizeof text;

void start_receive_thread() {
    zel_tun_packet_init([](int, void*, int) {},
                        [](void** handle, void**, int) { *handle = nullptr; }, [](void*) {}, 10);
}

// The devices of the instance "red", as Linux knows them.
std::string devices_of_red() {
    return shell("ip netns exec red ls /sys/class/net | grep tun | tr '\n' ' '");
}

class Tun : public testing::Test {
protected:
    void SetUp() override {
        ENTER_PRIVATE_NAMESPACES_OR_SKIP();
        std::strcpy(text, "old");
    }
};

TEST_F(Tun, StopsWithTheReasonWhenAnEssentialCallFails) {
    const auto fail = [](auto...) {
        errno = EINTR;
        return -1;
    };
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[&] { interposed::pthread_mutex_init = fail; }, "848 Failed to initialize FD map mutex"},
        {[&] { interposed::pipe = fail; }, "872 Failed to create rx packet wakeup pipe"},
        {[&] { interposed::write = fail; }, "284 wakeup_zel_tun_packet_receive\\(\\) write failed"},
        {[&] { interposed::select = fail; }, "744 rx packet select\\(\\) failure"},
    };
    const auto run = [] {
        zel_tun_init();
        start_receive_thread();
        zel_tun_ipv4_destroy(nullptr, 0, "red", 3);
        sleep(20);
    };
    for (const auto& [make_fail, reason] : cases)
        EXPECT_DEATH((make_fail(), run()), "src/zel_tun:" + std::string{reason} + "\n");
}

TEST_F(Tun, WithoutADriverRunsCommandsAndNothingElse) {
    ASSERT_EQ(mount("none", "/dev/net", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(printed_on(1, zel_tun_init), "No IP stack synchronization.\r\n");
    const auto before = open_files();
    start_receive_thread();
    EXPECT_TRUE(eventually([] { return registered_threads() == 0; }));
    zel_tun_ipv4_create(text, size, "red", 3);
    EXPECT_THAT(text, HasSubstr("Unable to open /dev/net/tun.\r\n"));
    auto& commands = record_commands(true);
    zel_tun_ipv4_status(text, size, "red", 3, true);
    EXPECT_EQ(commands.take().size(), 1u);
    // The wake-up has no pipe to go to, nor any other descriptor.
    EXPECT_EQ(printed_on(0, [] { zel_tun_ipv4_destroy(text, 0, "red", 3); }), "");
    EXPECT_STREQ(text, "");
    EXPECT_EQ(open_files(), before);
}

TEST_F(Tun, CreatesAndDestroysDevicesInTheirInstance) {
    zel_tun_init();
    auto& commands = record_commands(false);
    zel_vrf_create(nullptr, 0, "red");
    zel_tun_ipv4_create(nullptr, 0, "red", 3);
    zel_tun_ipv6_create(text, size, "red", -3);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(devices_of_red(), "tun4_3 tun6_-3 ");
    zel_tun_ipv6_create(text, size, "nowhere", -2147483648); // too long a name for Linux
    EXPECT_THAT(text, HasSubstr("\"tun6_-2147483648\" is wrong: \"dev\" not a valid ifname"));
    EXPECT_THAT(shell("ip -br link"), HasSubstr("tun6_-214748364 "));
    EXPECT_EQ(open_files("/dev/net/tun"), 3);

    zel_tun_ipv6_destroy(nullptr, 0, "nowhere", -2147483648);
    std::strcpy(text, "old");
    zel_tun_ipv6_destroy(text, 0, "red", -3);
    EXPECT_EQ(std::string(text, 3), std::string("\0ld", 3));
    zel_tun_ipv4_destroy(nullptr, 0, "red", 7); // never created
    EXPECT_EQ(open_files("/dev/net/tun"), 1);
    EXPECT_EQ(devices_of_red(), "tun4_3 tun6_-3 "); // until somebody runs the deletion
    start_receive_thread();
    zel_tun_ipv4_destroy(nullptr, 0, "red", 3);
    Strings run;
    EXPECT_TRUE(eventually([&] {
        for (const std::string& each : commands.take()) {
            if (each.find(" dev tun") != std::string::npos)
                run.push_back(each);
        }
        return run.size() == 10;
    }));
    EXPECT_TRUE(eventually([] { return devices_of_red().empty(); }));
    EXPECT_EQ(open_files("/dev/net/tun"), 0);
    EXPECT_THAT(
        run,
        ElementsAre(
            "ip tuntap add dev tun4_3 mode tun 2>&1", "ip link set dev tun4_3 netns \"red\" 2>&1",
            "ip tuntap add dev tun6_-3 mode tun 2>&1", "ip link set dev tun6_-3 netns \"red\" 2>&1",
            "ip tuntap add dev tun6_-2147483648 mode tun 2>&1",
            "ip link set dev tun6_-2147483648 netns \"nowhere\" 2>&1",
            "ip netns exec \"nowhere\" ip tuntap del dev tun6_-2147483648 mode tun 2>&1",
            "ip netns exec \"red\" ip tuntap del dev tun6_-3 mode tun 2>&1",
            "ip netns exec \"red\" ip tuntap del dev tun4_7 mode tun 2>&1",
            "ip netns exec \"red\" ip tuntap del dev tun4_3 mode tun 2>&1"));

    zel_tun_ipv4_create(nullptr, 0, "red", 3);
    zel_tun_ipv4_destroy(nullptr, 0, "nowhere", 3); // and yet it is no longer one of red's
    EXPECT_TRUE(eventually([] { return open_files("/dev/net/tun") == 0; }));
    zel_tun_ipv4_create(nullptr, 0, "nowhere", 4); // gets its number
    zel_vrf_destroy(nullptr, 0, "red");
    zel_tun_ipv4_destroy(nullptr, 0, "nowhere", 4);
    EXPECT_TRUE(eventually([] { return open_files("/dev/net/tun") == 0; }));

    zel_vrf_create(nullptr, 0, "red");
    zel_tun_ipv4_create(nullptr, 0, "red", 3);
    zel_vrf_destroy(text, size, "red"); // forgets the device and leaves it open
    EXPECT_STREQ(text, "");
    commands.take();
    zel_tun_ipv4_destroy(nullptr, 0, "red", 3);
    EXPECT_TRUE(eventually([&] { return !commands.take().empty(); }));
    EXPECT_EQ(open_files("/dev/net/tun"), 1);
}

// A child has all descriptors until its exec, and one that never comes there for good.
TEST_F(Tun, DeviceGoesWithTheLastProcessThatHasInheritedIt) {
    zel_tun_init();
    start_receive_thread();
    zel_vrf_create(nullptr, 0, "red");
    zel_tun_ipv4_create(nullptr, 0, "red", 3);
    const pid_t child = fork();
    if (child == 0)
        pause();
    auto& commands = record_commands(false);
    zel_tun_ipv4_destroy(nullptr, 0, "red", 3);
    EXPECT_TRUE(eventually([&] { return !commands.take().empty(); }));
    // In the queue behind it: the deletion, which Linux refuses, has ended.
    zel_tun_ipv4_destroy(nullptr, 0, "red", 4);
    EXPECT_TRUE(eventually([&] { return !commands.take().empty(); }));
    EXPECT_TRUE(eventually([] { return devices_of_red() == "tun4_3 "; }));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    EXPECT_TRUE(eventually([] { return devices_of_red().empty(); }));
}

TEST_F(Tun, ReportsAFailedCreationAndLeavesNothingBehind) {
    zel_tun_init();
    for (int i = 0; i < 16500; ++i) // more wake-ups than the pipe holds, and nobody reads it
        zel_tun_ipv4_destroy(text, 0, "red", i);
    const auto expect_failure = [](const char* report) {
        const auto before = open_files();
        zel_tun_ipv4_create(text, size, "red", 4);
        EXPECT_THAT(text, testing::EndsWith(report));
        EXPECT_EQ(open_files(), before);
    };
    ifreq request{};
    std::strcpy(request.ifr_name, "tun4_4");
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    const int busy = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    ASSERT_EQ(ioctl(busy, TUNSETIFF, &request), 0);
    expect_failure("ioctl() failed for tun4_4\r\n");
    close(busy);

    const rlimit limit{1100, 1100};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    while (fcntl(0, F_DUPFD_CLOEXEC, 0) < FD_SETSIZE - 1) {
    }
    expect_failure("Descriptor 1024 is too large for tun4_4\r\n");
    for (int fd = FD_SETSIZE - 20; fd < FD_SETSIZE; ++fd)
        close(fd);
}

} // namespace
