// The packet path: real devices in real namespaces, with sockets there as the peers.
#include "support/emulation.hpp"
#include "support/interpose.hpp"
#include "support/private_namespaces.hpp"
#include "support/wait.hpp"

#include <zelkernel/routing.h>
#include <zelkernel/tun.h>

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cstring>
#include <deque>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

ZEL_INTERPOSE(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size), )
ZEL_INTERPOSE(int, select, (int count, fd_set* in, fd_set* out, fd_set* other, timeval* timeout),
              (count, in, out, other, timeout), )

using zel::test::eventually;
using zel::test::shell;

namespace {

// The IP stack's side: keeps what it is given.
struct Stack {
    std::mutex mutex;
    std::deque<std::pair<int, std::string>> received; // index, packet
    std::vector<int> sizes;
    bool has_buffers = true;
    int freed = 0;

    std::atomic<int> select_count = 0;

    // Each runs once, in the window that a case wants to have something happen in.
    std::function<void()> in_alloc, before_select, before_write;

    void run(std::function<void()> Stack::*hook) {
        std::unique_lock lock{mutex};
        const auto action = std::exchange(this->*hook, nullptr);
        lock.unlock();
        if (action)
            action();
    }
    void set(std::function<void()> Stack::*hook, std::function<void()> action) {
        const std::lock_guard lock{mutex};
        this->*hook = std::move(action);
    }
    template<typename Member>
    Member get(Member Stack::*member) {
        const std::lock_guard lock{mutex};
        return this->*member;
    }
    std::pair<int, std::string> take() {
        if (!eventually([this] { return !get(&Stack::received).empty(); })) {
            ADD_FAILURE() << "no packet";
            return {-1, std::string(100, '?')};
        }
        const std::lock_guard lock{mutex};
        const auto packet = received.front();
        received.pop_front();
        return packet;
    }
};

Stack& stack = *new Stack; // never destroyed: the process may exit while the receive thread runs

void receive(int index, void* handle, int length) {
    const std::unique_ptr<std::string> buffer{static_cast<std::string*>(handle)};
    buffer->resize(static_cast<size_t>(length));
    const size_t protocol_at = buffer->front() >> 4 == 4 ? 9 : 6;
    if ((*buffer)[protocol_at] != IPPROTO_UDP)
        return; // router solicitations and the like
    const std::lock_guard lock{stack.mutex};
    stack.received.emplace_back(index, *buffer);
}

void alloc_buffer(void** handle, void** data, int size) {
    stack.run(&Stack::in_alloc);
    const std::lock_guard lock{stack.mutex};
    stack.sizes.push_back(size);
    *handle = nullptr;
    if (!stack.has_buffers)
        return;
    const auto buffer = new std::string(static_cast<size_t>(size), '\0');
    *handle = buffer;
    *data = buffer->data();
}

void free_buffer(void* handle) {
    delete static_cast<std::string*>(handle);
    const std::lock_guard lock{stack.mutex};
    ++stack.freed;
}

union Address {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
};

Address address(const char* host, int port = 0) {
    Address result{};
    const bool is_v6 = std::strchr(host, ':') != nullptr;
    result.any.sa_family = is_v6 ? AF_INET6 : AF_INET;
    result.v4.sin_port = htons(static_cast<uint16_t>(port)); // at the same place in both
    inet_pton(result.any.sa_family, host,
              is_v6 ? static_cast<void*>(&result.v6.sin6_addr) : &result.v4.sin_addr);
    return result;
}

// An answer to a UDP packet: addresses and ports change places, which leaves both checksums right.
std::string answer_to(std::string packet) {
    const auto swap = [&packet](size_t at, size_t size) {
        std::swap_ranges(&packet[at], &packet[at + size], &packet[at + size]);
    };
    const bool is_v4 = packet[0] >> 4 == 4;
    swap(is_v4 ? 12 : 8, is_v4 ? 4 : 16);
    swap(is_v4 ? 20 : 40, 2);
    return packet;
}

int udp_socket(const char* name, int family = AF_INET) {
    const int result = zel::test::socket_in_namespace(name, family, SOCK_DGRAM);
    const timeval patience{10, 0};
    setsockopt(result, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return result;
}

ssize_t send(int socket, const std::string& payload, const char* host = "10.0.0.2", int port = 7) {
    const Address peer = address(host, port);
    return sendto(socket, payload.data(), payload.size(), 0, &peer.any, sizeof peer);
}

bool has_device(const char* name, const std::string& device) {
    return shell("ip -n " + std::string{name} + " -br link").find(device + " ") !=
           std::string::npos;
}

class Packets : public testing::Test {
protected:
    void SetUp() override {
        if (!zel::test::enter_private_namespaces())
            GTEST_SKIP() << "namespaces and TUN devices need root: " << strerror(errno);
        interposed::select = [](int count, auto... arguments) {
            stack.run(&Stack::before_select);
            stack.select_count = count;
            return real::select(count, arguments...);
        };
        interposed::write = [](int fd, const void* data, size_t size) {
            if (size >= 20) // a packet; a wake-up is shorter
                stack.run(&Stack::before_write);
            return real::write(fd, data, size);
        };
        zel_tun_init();
        zel_tun_packet_init(receive, alloc_buffer, free_buffer, 10);
    }

    // An instance with an interface that is up. IPv6, which talks of its own accord, is off on the
    // IPv4 ones.
    void add_interface(const char* name, int index, bool is_v6 = false) {
        zel_vrf_create(text, sizeof text, name);
        shell("ip netns exec " + std::string{name} + " sh -c 'echo " + (is_v6 ? "0" : "1") +
              " > /proc/sys/net/ipv6/conf/default/disable_ipv6'");
        (is_v6 ? zel_tun_ipv6_create : zel_tun_ipv4_create)(text, sizeof text, name, index);
        EXPECT_STREQ(text, "");
        (is_v6 ? zel_tun_ipv6_status : zel_tun_ipv4_status)(text, sizeof text, name, index, true);
        EXPECT_STREQ(text, "");
        const Address host4 = address("10.0.0.1"), net4 = address("10.0.0.0");
        const Address host6 = address("fd00::1"), net6 = address("fd00::");
        if (is_v6) {
            zel_tun_ipv6_address_add(text, sizeof text, name, index, &host6.v6.sin6_addr, 0, false);
            EXPECT_STREQ(text, "");
            zel_ipv6_route_add(text, sizeof text, name, &net6.v6.sin6_addr, 0, 64, &index, nullptr,
                               0);
        } else { // the tool warns that "nodad" is for IPv6, and obeys
            zel_tun_ipv4_address_add(text, sizeof text, name, index, &host4.v4.sin_addr);
            zel_ipv4_route_add(text, sizeof text, name, &net4.v4.sin_addr, 0, 24, &index, nullptr,
                               0);
        }
        EXPECT_STREQ(text, "");
    }

    char text[1000];
};

TEST_F(Packets, GoBothWaysByteForByteInInstancesWithTheSameAddresses) {
    const char* const names[] = {"red", "blue"};
    for (int i : {0, 1})
        for (bool is_v6 : {false, true})
            add_interface(names[i], i, is_v6);
    for (int i : {0, 1})
        for (bool is_v6 : {false, true}) {
            const size_t headers = is_v6 ? 48 : 28;
            const auto packet_send = is_v6 ? zel_tun_ipv6_packet_send : zel_tun_ipv4_packet_send;
            const int socket = udp_socket(names[i], is_v6 ? AF_INET6 : AF_INET);
            for (const size_t size : {size_t{0}, size_t{1}, 1500 - headers}) {
                const std::string payload(size, static_cast<char>('a' + i));
                EXPECT_EQ(send(socket, payload, is_v6 ? "fd00::2" : "10.0.0.2"), ssize_t(size));
                const auto [index, packet] = stack.take();
                EXPECT_EQ(index, i);
                EXPECT_EQ(packet[0], is_v6 ? '\x60' : '\x45');
                EXPECT_EQ(packet.substr(headers), payload);
                const std::string answer = answer_to(packet);
                packet_send(i + 7, answer.data(), answer.size()); // nobody's index
                packet_send(i, answer.data(), answer.size());
                char back[2000];
                EXPECT_EQ(recv(socket, back, sizeof back, 0), ssize_t(size));
                EXPECT_EQ(std::string(back, size), payload);
                EXPECT_EQ(recv(socket, back, sizeof back, MSG_DONTWAIT), -1);
            }
        }
}

TEST_F(Packets, AreReadWithTheDevicesMtuAndDroppedWithoutABuffer) {
    add_interface("red", 3);
    const int socket = udp_socket("red");
    const std::pair<int, int> mtu_and_size[] = {
        {1500, 1500}, {600, 600}, {70000, 65535}, {0, 65535}, {-7, 65535}};
    for (const auto& [mtu, size] : mtu_and_size) {
        zel_tun_ipv4_mtu(text, sizeof text, "red", 3, mtu);
        EXPECT_EQ(*text == '\0', mtu > 0);
        send(socket, "x");
        EXPECT_EQ(stack.take().second.size(), 29u);
        EXPECT_EQ(stack.get(&Stack::sizes).back(), size);
    }
    stack.has_buffers = false;
    for (int i = 0; i < 3; ++i)
        send(socket, "dropped");
    EXPECT_TRUE(eventually([] { return stack.get(&Stack::sizes).size() == 8; }));
    stack.set(&Stack::in_alloc, [] { stack.has_buffers = true; });
    send(socket, "kept");
    EXPECT_EQ(stack.take().second.substr(28), "kept");
    EXPECT_EQ(stack.get(&Stack::freed), 0);
}

TEST_F(Packets, OfADeviceThatLinuxHasLostGiveTheBufferBackOnce) {
    add_interface("red", 3);
    add_interface("blue", 4);
    shell("ip -n red link del tun4_3");
    EXPECT_TRUE(eventually([] { return stack.get(&Stack::freed) > 0; }));
    for (int i = 0; i < 3; ++i) {
        send(udp_socket("blue"), "x");
        EXPECT_EQ(stack.take().first, 4);
    }
    EXPECT_EQ(stack.get(&Stack::freed), 1);
}

TEST_F(Packets, OfMarkedTrafficAloneLeaveThroughTheTableExternal) {
    zel_external_traffic_match_criteria_add(nullptr, 0, IPPROTO_UDP, 0, 53);
    add_interface("red", 3);
    zel_tun_ipv4_create(text, sizeof text, "red", 5);
    zel_tun_ipv4_status(text, sizeof text, "red", 5, true);
    const in_addr any{}, server = address("192.0.2.7").v4.sin_addr;
    const int index = 3;
    zel_ipv4_route_add(text, sizeof text, "red", &any, 0, 0, &index, nullptr, 0);
    zel_ipv4_external_route_add(text, sizeof text, "red", 5, &server);
    EXPECT_STREQ(text, "");
    const int socket = udp_socket("red");
    for (const int port : {54, 53, 55}) {
        send(socket, "?", "192.0.2.7", port);
        EXPECT_EQ(stack.take().first, port == 53 ? 5 : 3);
    }
    EXPECT_THAT(shell("ip netns exec red iptables -t mangle -vxnL OUTPUT"),
                testing::ContainsRegex("\n +1 +29 MARK "));
}

// A file on the lowest free descriptor number: that of a TUN device, had it just been closed.
int open_decoy() {
    const int fd = memfd_create("decoy", MFD_CLOEXEC);
    EXPECT_EQ(pwrite(fd, "decoy", 5, 0), 5);
    return fd;
}

void expect_untouched(int decoy) {
    char content[100];
    EXPECT_EQ(std::string(content, static_cast<size_t>(pread(decoy, content, 100, 0))), "decoy");
    EXPECT_EQ(lseek(decoy, 0, SEEK_CUR), 0);
}

TEST_F(Packets, InFlightKeepTheirDeviceWhileItIsDestroyed) {
    add_interface("red", 3);
    const int socket = udp_socket("red");
    send(socket, "x");
    const std::string answer = answer_to(stack.take().second);
    int decoy = -1;
    std::atomic<bool> deletion_waits{false};
    stack.set(&Stack::before_write, [&] {
        stack.set(&Stack::before_select, [&] { deletion_waits = true; });
        zel_tun_ipv4_destroy(nullptr, 0, "red", 3);
        decoy = open_decoy();
        EXPECT_TRUE(eventually([&] { return deletion_waits.load(); }));
    });
    zel_tun_ipv4_packet_send(3, answer.data(), answer.size());
    expect_untouched(decoy);
    char back;
    EXPECT_EQ(recv(socket, &back, 1, 0), 1) << "the packet was lost";
    EXPECT_TRUE(eventually([] { return !has_device("red", "tun4_3"); }));
}

TEST_F(Packets, AreNeverReadFromAReusedDescriptor) {
    EXPECT_TRUE(eventually([] { return stack.select_count != 0; }));
    const int count_without_devices = stack.select_count;
    add_interface("red", 3);
    add_interface("blue", 4);
    const int first = udp_socket("red"), second = udp_socket("blue");
    int decoy = -1;
    std::atomic<bool> deleted_after_the_pass{false};
    // The first packet holds the receive thread up until both devices are ready for one pass.
    stack.set(&Stack::in_alloc, [&] {
        send(first, "1");
        send(second, "2");
        stack.set(&Stack::in_alloc, [&] {
            zel_tun_ipv4_destroy(nullptr, 0, "blue", 4);
            decoy = open_decoy();
            stack.set(&Stack::before_select,
                      [&] { deleted_after_the_pass = !has_device("blue", "tun4_4"); });
        });
    });
    send(first, "0");
    for (const char* payload : {"0", "1", "2"})
        EXPECT_EQ(stack.take().second.substr(28), payload);
    EXPECT_TRUE(eventually([&] { return deleted_after_the_pass.load(); }));
    expect_untouched(decoy);
    // Gone between the copy of the set and select(), which must not fail.
    stack.set(&Stack::before_select, [] { zel_tun_ipv4_destroy(nullptr, 0, "red", 3); });
    send(first, "3");
    EXPECT_TRUE(eventually([] { return !has_device("red", "tun4_3"); }));
    EXPECT_TRUE(eventually([&] { return stack.select_count == count_without_devices; }));
}

TEST_F(Packets, AllowTheProcessToExitAtAnyTime) {
    if (zel::test::running_under_user_emulation())
        GTEST_SKIP() << "The program cannot execute itself there.";
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    add_interface("red", 3);
    const auto exit_busy = [socket = udp_socket("red")] {
        std::thread{[socket] {
            for (;;)
                send(socket, "x");
        }}.detach();
        stack.take();
        exit(7);
    };
    for (int i = 0; i < 3; ++i)
        EXPECT_EXIT(exit_busy(), testing::ExitedWithCode(7), "");
}

} // namespace
