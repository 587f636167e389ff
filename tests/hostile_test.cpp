// Surroundings that an application does not choose.
#include "support/test.hpp"

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

} // namespace
