// Surroundings that an application does not choose, and arguments at and beyond their limits.
#include "support/test.hpp"
#include "support/tun_interface.hpp"

namespace {

using namespace zel::test;

std::atomic<int> polls{0};

void start_everything() {
    zel_kernel_init(
        {5, 25, 23, 0, 2, 100, 50, 150, 10}, 1000, 0, [] { ++polls; }, nullptr);
    zel_tun_packet_init([](int, void*, int) {},
                        [](void** handle, void** data, int) {
                            static char buffer[65536];
                            *handle = *data = buffer;
                        },
                        [](void*) {}, 110);
}

// An instance with a device, a packet through it, and its end, by the tools. Returns what they say.
std::string use_the_network(const char* name) {
    char text[2000];
    size_t length = 0;
    const auto each = [&](auto operation, auto... arguments) {
        operation(text + length, sizeof text - length, name, arguments...);
        length += std::strlen(text + length);
    };
    each(zel_vrf_create);
    each(zel_tun_ipv4_create, 3);
    each(zel_tun_ipv4_status, 3, true);
    each(zel_tun_ipv4_mtu, 3, 1400);
    const unsigned char packet[28] = {0x45, 0, 0, 28, 0, 0, 0, 0, 64, IPPROTO_UDP};
    zel_tun_ipv4_packet_send(3, packet, sizeof packet);
    each(zel_tun_ipv4_destroy, 3);
    each(zel_vrf_destroy);
    return std::string(text, length);
}

TEST(StandardStreams, ThatAreClosedDoNoHarm) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    for (const auto& closed : {std::vector{1}, {0, 1}, {1, 2}, {0, 1, 2}}) {
        const int status = status_of_child([&] {
            for (int fd : closed)
                close(fd);
            shell("ip netns add stale");
            start_everything();
            const bool removed = shell("ls /run/netns").empty();
            const bool works = use_the_network("red").empty() && use_the_network("blue").empty();
            zel_get_free_mem();
            _exit(removed && works && eventually([] { return polls > 0; }) ? 0 : 1);
        });
        EXPECT_EQ(status, 0) << "without " << testing::PrintToString(closed);
    }
}

TEST(Children, OfTheApplicationInheritNoDescriptorOfTheLibraryAtAnyMoment) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    // The descriptors beyond the standard streams that a command has.
    const auto inherited = [] {
        return shell("for fd in /proc/$$/fd/*; do case ${fd##*/} in 0|1|2) ;; *) readlink $fd;; "
                     "esac; done; exit 0");
    };
    const std::string usual = inherited();
    {
        const Capture out{1};
        start_everything();
    }
    const Linux::LinuxInterruptMgr manager;
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    std::thread user{[&] {
        for (; !stop; ++rounds)
            use_the_network("red");
    }};
    for (int i = 0; (i < 150 || rounds < 2) && !HasFailure(); ++i)
        EXPECT_EQ(inherited(), usual);
    stop = true;
    user.join();
}

TEST(Arguments, AtAndBeyondTheirLimitsAreRefusedOrPassedOn) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    zel_tun_init();
    zel_tun_ipv4_create(nullptr, 0, "nowhere", 3);
    ASSERT_TRUE(bring_up(3));
    const std::vector<unsigned char> packet(1 << 20, 0x45);
    for (const size_t length : {size_t{0}, size_t{1}, size_t{19}, size_t{65535}, packet.size()}) {
        for (const int index : {3, 0, -1, INT_MIN, INT_MAX})
            zel_tun_ipv4_packet_send(index, packet.data(), length);
    }
    static char text[200];
    const std::string long_name(100'000, 'n');
    for (const std::string& name : {std::string{}, std::string(300, 'n'), long_name}) {
        zel_vrf_create(text, sizeof text, name.c_str());
        EXPECT_NE(*text, '\0');
        zel_vrf_destroy(text, sizeof text, name.c_str());
        EXPECT_NE(*text, '\0');
    }
    for (const int index : {INT_MIN, INT_MAX}) {
        zel_tun_ipv6_create(text, sizeof text, "nowhere", index);
        zel_tun_ipv6_mtu(text, sizeof text, "nowhere", index, index);
        EXPECT_THAT(text, testing::HasSubstr("Cannot open network namespace \"nowhere\""));
        zel_tun_ipv6_destroy(text, 0, "nowhere", index);
    }
    EXPECT_EQ(setThreadAffinityCPU(INT_MIN), 0);
    EXPECT_EQ(setThreadAffinityCPU(INT_MAX), 0);
    EXPECT_EQ(__builtin_popcount(getThreadAffinityCPU()), 1);
}

} // namespace
