// The packet path: real devices in real namespaces, with sockets there as the peers.
#include "support/allocation_failure.hpp"
#include "support/commands.hpp"
#include "support/test.hpp"

#include <deque>
#include <mutex>
#include <netdb.h>
#include <sys/epoll.h>
#include <sys/select.h>

ZEL_INTERPOSE(ssize_t, read, (int fd, void* data, size_t size), (fd, data, size))
ZEL_INTERPOSE(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size))
ZEL_INTERPOSE(int, close, (int fd), (fd))
ZEL_INTERPOSE(int, epoll_create1, (int flags), (flags))
ZEL_INTERPOSE(int, epoll_ctl, (int set, int action, int fd, epoll_event* event),
              (set, action, fd, event))
ZEL_INTERPOSE_TIME(int, select,
                   (int count, fd_set* in, fd_set* out, fd_set* other, timeval* timeout),
                   (count, in, out, other, timeout))

namespace {

using namespace zel::test;

// What a case wants to happen in a certain window: it runs there once.
class Once {
public:
    void operator=(std::function<void()> action) { action_ = new auto(std::move(action)); }
    void operator()() {
        const std::unique_ptr<std::function<void()>> action{action_.exchange(nullptr)};
        if (action != nullptr)
            (*action)();
    }

private:
    std::atomic<std::function<void()>*> action_{nullptr};
};

// The IP stack's side: keeps what it is given.
struct Stack {
    std::mutex mutex;
    std::deque<std::pair<int, std::string>> received; // index, packet
    std::atomic<int> allocations = 0, last_size = 0, freed = 0, select_count = 0;
    std::atomic<int> reads_of_what_is_gone = 0;
    std::atomic<bool> has_buffers = true, has_read_pipe = false;
    std::atomic<size_t> last_read = 0;
    Once in_alloc, before_select, after_select, before_write;

    std::pair<int, std::string> take() {
        std::pair<int, std::string> packet{-1, std::string(100, '?')};
        EXPECT_TRUE(eventually([&] {
            const std::lock_guard lock{mutex};
            if (received.empty())
                return false;
            packet = received.front();
            received.pop_front();
            return true;
        })) << "no packet";
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
    stack.in_alloc();
    stack.last_size = size;
    ++stack.allocations;
    *handle = nullptr;
    if (!stack.has_buffers)
        return;
    const auto buffer = new std::string(static_cast<size_t>(size), '\0');
    *handle = buffer;
    *data = buffer->data();
}

void free_buffer(void* handle) {
    delete static_cast<std::string*>(handle);
    ++stack.freed;
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
    const int result = socket_in_namespace(name, family, SOCK_DGRAM);
    const timeval patience{10, 0};
    setsockopt(result, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    return result;
}

ssize_t send(int socket, const std::string& payload, const char* host = "10.0.0.2",
             const char* port = "7") {
    // Numbers only: looking at the machine's addresses takes more than the 16 KiB of stack that the
    // receive thread, on which some cases send, has under a sanitizer.
    addrinfo* peer = nullptr;
    addrinfo numbers{};
    numbers.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    getaddrinfo(host, port, &numbers, &peer);
    const ssize_t sent =
        sendto(socket, payload.data(), payload.size(), 0, peer->ai_addr, peer->ai_addrlen);
    freeaddrinfo(peer);
    return sent;
}

// Waits for a device to go.
bool loses_device(const char* name, const std::string& device) {
    const std::string command = "ip -n " + std::string{name} + " -br link";
    return eventually([&] { return shell(command).find(device + " ") == std::string::npos; });
}

// An instance with an interface that is up. IPv6, which talks of its own accord, is off on the IPv4
// ones.
void add_interface(const char* name, int index, bool is_v6 = false) {
    zel_vrf_create(nullptr, 0, name);
    shell("ip netns exec " + std::string{name} + " sh -c 'echo " + (is_v6 ? "0" : "1") +
          " > /proc/sys/net/ipv6/conf/default/disable_ipv6'");
    if (is_v6) {
        const in6_addr host{{{0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}}, net{{{0xfd}}};
        zel_tun_ipv6_create(nullptr, 0, name, index);
        zel_tun_ipv6_status(nullptr, 0, name, index, true);
        zel_tun_ipv6_address_add(nullptr, 0, name, index, &host, 0, false);
        zel_ipv6_route_add(nullptr, 0, name, &net, 0, 64, &index, nullptr, 0);
    } else {
        const in_addr host{htonl(0x0a000001)}, net{htonl(0x0a000000)};
        zel_tun_ipv4_create(nullptr, 0, name, index);
        zel_tun_ipv4_status(nullptr, 0, name, index, true);
        // The tool warns that "nodad" is for IPv6, and has to get that said to obey.
        char byte;
        zel_tun_ipv4_address_add(index % 2 == 0 ? nullptr : &byte, 1, name, index, &host);
        zel_ipv4_route_add(nullptr, 0, name, &net, 0, 24, &index, nullptr, 0);
    }
}

class Packets : public testing::Test {
protected:
    static ssize_t look_at_read(int fd, void* data, size_t size) {
        EXPECT_FALSE(stack.has_read_pipe) << "before the packets of the pass";
        stack.has_read_pipe = size == 100;
        if (!stack.has_read_pipe)
            stack.last_read = size;
        const ssize_t length = real::read(fd, data, size);
        stack.reads_of_what_is_gone += length < 0 && errno == EBADFD;
        return length;
    }

    void SetUp() override {
        ENTER_PRIVATE_NAMESPACES_OR_SKIP();
        interposed::select = [](int count, auto... arguments) {
            stack.before_select();
            stack.select_count = count;
            stack.has_read_pipe = false;
            const int result = real::select(count, arguments...);
            stack.after_select();
            return result;
        };
        interposed::read = look_at_read;
        interposed::write = [](int fd, const void* data, size_t size) {
            if (size >= 20) // a packet; a wake-up is shorter
                stack.before_write();
            return real::write(fd, data, size);
        };
        zel_tun_init();
        zel_tun_packet_init(receive, alloc_buffer, free_buffer, 10);
    }
};

TEST_F(Packets, GoBothWaysByteForByteInInstancesWithTheSameAddresses) {
    const struct {
        const char* name;
        int index;
        bool is_v6;
    } devices[] = {{"red", 0, false}, {"red", 0, true}, {"blue", 1, false}, {"blue", 1, true}};
    for (const auto& [name, index, is_v6] : devices)
        add_interface(name, index, is_v6);
    for (const auto& [name, index, is_v6] : devices) {
        const size_t headers = is_v6 ? 48 : 28;
        const auto packet_send = is_v6 ? zel_tun_ipv6_packet_send : zel_tun_ipv4_packet_send;
        const int socket = udp_socket(name, is_v6 ? AF_INET6 : AF_INET);
        for (const size_t size : {size_t{0}, size_t{1}, 1500 - headers}) {
            const std::string payload(size, static_cast<char>('a' + index));
            EXPECT_EQ(send(socket, payload, is_v6 ? "fd00::2" : "10.0.0.2"), ssize_t(size));
            const auto [from, packet] = stack.take();
            EXPECT_EQ(from, index);
            EXPECT_EQ(packet[0], is_v6 ? '\x60' : '\x45');
            EXPECT_EQ(packet.substr(headers), payload);
            const std::string answer = answer_to(packet);
            packet_send(index + 7, answer.data(), answer.size()); // nobody's index
            packet_send(index, answer.data(), answer.size());
            char back[2000];
            EXPECT_EQ(recv(socket, back, sizeof back, 0), ssize_t(size));
            EXPECT_EQ(std::string(back, size), payload);
            EXPECT_EQ(recv(socket, back, sizeof back, MSG_DONTWAIT), -1);
        }
    }
    zel_tun_ipv6_mtu(nullptr, 0, "red", 0, 1400); // not that of IPv4's
    EXPECT_TRUE(eventually([socket = udp_socket("red", AF_INET6)] {
        send(socket, "x", "fd00::2");
        return stack.last_size == 1400;
    }));
}

TEST_F(Packets, AreReadWithTheDevicesMtuAndDroppedWithoutABufferOrDevice) {
    add_interface("red", 3);
    const int socket = udp_socket("red");
    const std::pair<int, int> mtu_and_size[] = {
        {1500, 1500}, {600, 600}, {70000, 65535}, {0, 65535}, {-7, 65535}};
    for (const auto& [mtu, size] : mtu_and_size) {
        interposed::popen = [&, expected = size](const char* command, const char* mode) {
            send(socket, "x"); // while the command has still to run
            EXPECT_EQ(stack.take().second.size(), 29u);
            EXPECT_EQ(stack.last_size, expected);
            EXPECT_EQ(stack.last_read, static_cast<size_t>(expected));
            return real::popen(command, mode);
        };
        zel_tun_ipv4_mtu(nullptr, 0, "red", 3, mtu);
    }
    interposed::popen = nullptr;
    stack.has_buffers = false;
    for (int i = 0; i < 3; ++i)
        send(socket, "dropped");
    EXPECT_TRUE(eventually([] { return stack.allocations == 8; }));
    EXPECT_EQ(stack.last_read, 1u);
    stack.in_alloc = [] { stack.has_buffers = true; };
    send(socket, "kept");
    EXPECT_EQ(stack.take().second.substr(28), "kept");
    EXPECT_EQ(stack.freed, 0);

    // A device that Linux is taking away is ready and has nothing: nobody waits or spins there.
    static std::atomic<int> refused{0};
    interposed::read = [](int fd, void* data, size_t size) {
        if (size < 1500)
            return real::read(fd, data, size);
        EXPECT_NE(fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
        errno = std::array{EAGAIN, EINTR, EIO, ENOMEM}[static_cast<size_t>(++refused % 4)];
        return ssize_t{-1};
    };
    zel_tun_ipv4_mtu(nullptr, 0, "red", 3, 1500);
    const auto start = std::chrono::steady_clock::now();
    send(socket, "x");
    EXPECT_TRUE(eventually([] { return refused >= 8; }));
    interposed::read = look_at_read;
    EXPECT_EQ(stack.take().first, 3);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds{refused});
    EXPECT_EQ(stack.freed, refused);
    static std::atomic<int> writes{0};
    interposed::write = [](int, const void*, size_t) { return ++writes, ssize_t{3}; };
    zel_tun_ipv4_packet_send(3, "packet", 6); // short, and neither told nor repeated
    EXPECT_EQ(writes, 1);
    interposed::write = nullptr;

    // One that is gone is not read again and does not hold the others up.
    add_interface("blue", 4);
    shell("ip -n red link del tun4_3");
    EXPECT_TRUE(eventually([] { return stack.reads_of_what_is_gone > 0; }));
    for (int i = 0; i < 3; ++i) {
        send(udp_socket("blue"), "x");
        EXPECT_EQ(stack.take().first, 4);
    }
    EXPECT_EQ(stack.reads_of_what_is_gone, 1);
}

TEST_F(Packets, OfMarkedTrafficAloneLeaveThroughTheTableExternal) {
    zel_external_traffic_match_criteria_add(nullptr, 0, IPPROTO_UDP, 0, 53);
    add_interface("red", 3);
    zel_tun_ipv4_create(nullptr, 0, "red", 5);
    zel_tun_ipv4_status(nullptr, 0, "red", 5, true);
    const in_addr any{}, server = {htonl(0xc0000207)};
    const int index = 3;
    zel_ipv4_route_add(nullptr, 0, "red", &any, 0, 0, &index, nullptr, 0);
    zel_ipv4_external_route_add(nullptr, 0, "red", 5, &server);
    const int socket = udp_socket("red");
    for (const char* port : {"54", "53", "55"}) {
        send(socket, "?", "192.0.2.7", port);
        EXPECT_EQ(stack.take().first, std::atoi(port) == 53 ? 5 : 3);
    }
    EXPECT_THAT(shell("ip netns exec red iptables -t mangle -vxnL OUTPUT"),
                testing::ContainsRegex("\n +1 +29 MARK "));
}

TEST_F(Packets, InFlightKeepTheirDeviceWhileItIsDestroyed) {
    add_interface("red", 3);
    const int socket = udp_socket("red");
    send(socket, "x");
    const std::string answer = answer_to(stack.take().second);
    std::atomic<bool> deletion_waits{false};
    std::atomic<int> closed_here{0};
    stack.before_write = [&] {
        stack.before_select = [&] { deletion_waits = true; };
        zel_tun_ipv4_destroy(nullptr, 0, "red", 3);
        EXPECT_TRUE(eventually([&] { return deletion_waits.load(); }));
        interposed::close = [&, sender = pthread_self()](int fd) {
            closed_here += pthread_equal(sender, pthread_self()) != 0;
            return real::close(fd);
        };
    };
    zel_tun_ipv4_packet_send(3, answer.data(), answer.size());
    EXPECT_EQ(closed_here, 0) << "which takes Linux long";
    interposed::close = nullptr;
    char back;
    EXPECT_EQ(recv(socket, &back, 1, 0), 1) << "the packet was lost";
    EXPECT_TRUE(loses_device("red", "tun4_3"));
}

// One operation stands in a command with the lock held, and the receive thread has a change to
// follow.
TEST_F(Packets, PassWhileAConfigurationHoldsTheLockAcrossACommand) {
    static std::atomic<bool> is_held{false}, let_go{false}, is_overdue{false};
    add_interface("red", 3);
    const int socket = udp_socket("red");
    interposed::popen = [](const char* command, const char* mode) {
        if (std::strstr(command, "-t mangle") != nullptr) {
            is_held = true;
            is_overdue = is_overdue || !eventually([] { return let_go.load(); });
        }
        return real::popen(command, mode);
    };
    std::thread configuration;
    stack.in_alloc = [&] {
        zel_tun_ipv4_create(nullptr, 0, "red", 4);
        configuration = std::thread{
            [] { zel_external_traffic_match_criteria_add(nullptr, 0, IPPROTO_UDP, 0, 53); }};
        EXPECT_TRUE(eventually([] { return is_held.load(); }));
    };
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(send(socket, "x"), 1);
        const std::string answer = answer_to(stack.take().second);
        zel_tun_ipv4_packet_send(3, answer.data(), answer.size());
        char back;
        EXPECT_EQ(recv(socket, &back, 1, 0), 1);
    }
    EXPECT_FALSE(is_overdue);
    let_go = true;
    configuration.join();
}

// More than a handful, so that idle ones are waited for as one: at the second attempt, and not
// those that the system cannot wait for in this way.
TEST_F(Packets, OfAnyOfManyDevicesArriveHoweverLongThatWasIdle) {
    interposed::epoll_create1 = [](int) {
        interposed::epoll_create1 = nullptr;
        return -1;
    };
    interposed::epoll_ctl = [](int set, int action, int fd, auto event) {
        return action == EPOLL_CTL_ADD && fd / 2 % 2 == 0 ? -1
                                                          : real::epoll_ctl(set, action, fd, event);
    };
    constexpr int devices = 12;
    EXPECT_TRUE(eventually([] { return stack.select_count != 0; }));
    const int count_without_devices = stack.select_count;
    std::vector<int> sockets;
    for (int index = 0; index < devices; ++index) {
        const std::string name = "red" + std::to_string(index);
        add_interface(name.c_str(), index);
        sockets.push_back(udp_socket(name.c_str()));
    }
    const auto expect_packets = [&](int index, int count) {
        for (int i = 0; i < count; ++i) {
            send(sockets[static_cast<size_t>(index)], "x");
            EXPECT_EQ(stack.take().first, index);
        }
    };
    expect_packets(0, 200); // the others go idle
    for (int index = 1; index < devices; ++index)
        expect_packets(index, index < 3 ? 100 : 1); // the first of them busy again
    zel_tun_ipv4_destroy(nullptr, 0, "red5", 5);    // both while they are idle
    shell("ip -n red6 link del tun4_6");
    EXPECT_TRUE(loses_device("red5", "tun4_5"));
    EXPECT_TRUE(eventually([] { return stack.reads_of_what_is_gone > 0; }));
    for (const int index : {11, 7, 1})
        expect_packets(index, 3);
    EXPECT_EQ(stack.reads_of_what_is_gone, 1);
    for (int index = 0; index < devices; ++index)
        zel_tun_ipv4_destroy(nullptr, 0, ("red" + std::to_string(index)).c_str(), index);
    EXPECT_TRUE(eventually([&] { return stack.select_count == count_without_devices; }));
}

TEST_F(Packets, AreNeverReadFromAClosedDescriptor) {
    EXPECT_TRUE(eventually([] { return stack.select_count != 0; }));
    const int count_without_devices = stack.select_count;
    add_interface("red", 3);
    add_interface("blue", 4);
    zel_tun_ipv4_create(nullptr, 0, "blue", 5);
    const int first = udp_socket("red"), second = udp_socket("blue");
    // The first packet holds the receive thread up until both devices are ready for one pass; the
    // second device is destroyed within it.
    stack.in_alloc = [&] {
        send(first, "1");
        send(second, "2");
        zel_tun_ipv4_destroy(nullptr, 0, "blue", 9); // the wake-up pipe is ready, too
        stack.in_alloc = [&] {
            zel_tun_ipv4_destroy(nullptr, 0, "blue", 4);
            // The first device, when the next wait has found it ready.
            stack.in_alloc = [&] {
                send(first, "3");
                stack.after_select = [] { zel_tun_ipv4_destroy(nullptr, 0, "red", 3); };
            };
        };
    };
    send(first, "0");
    for (const char* payload : {"0", "1", "2"})
        EXPECT_EQ(stack.take().second.substr(28), payload);
    EXPECT_TRUE(loses_device("blue", "tun4_4"));
    EXPECT_TRUE(loses_device("red", "tun4_3"));
    EXPECT_EQ(stack.allocations, 3);
    // Gone between the copy of the set and select(), which must not fail.
    stack.before_select = [] { zel_tun_ipv4_destroy(nullptr, 0, "blue", 5); };
    zel_tun_ipv4_destroy(nullptr, 0, "blue", 9);
    EXPECT_TRUE(loses_device("blue", "tun4_5"));
    EXPECT_TRUE(eventually([&] { return stack.select_count == count_without_devices; }));
}

TEST_F(Packets, BringADeletionAlongWhenTheWakeUpPipeCannotBeRead) {
    static std::atomic<int> failures;
    add_interface("red", 3);
    const int socket = udp_socket("red");
    Commands& commands = record_commands(true);
    interposed::read = [](int fd, void* data, size_t size) {
        const ssize_t length = real::read(fd, data, size);
        if (size != 100 || ++failures > 1)
            return length;
        errno = EIO; // the token is gone with the error
        return ssize_t{-1};
    };
    zel_tun_ipv4_destroy(nullptr, 0, "red", 7);
    EXPECT_TRUE(eventually([] { return failures > 0; }));
    EXPECT_THAT(commands.take(), testing::IsEmpty());
    send(socket, "x");
    stack.take(); // in the next pass, which is not one of a further wake-up
    Strings run;
    EXPECT_TRUE(eventually([&] { return !(run = commands.take()).empty(); }));
    EXPECT_THAT(run, testing::ElementsAre(testing::HasSubstr("tun4_7")));
}

TEST_F(Packets, PassAfterADeletionThatCannotBeRun) {
    static std::atomic<int> starts;
    add_interface("red", 3);
    const int socket = udp_socket("red");
    interposed::popen = [](auto...) {
        ++starts;
        return nullptr;
    };
    zel_tun_ipv4_destroy(nullptr, 0, "red", 7);
    EXPECT_TRUE(eventually([] { return starts == 1; }));
    if (can_fail_allocations) {
        stack.before_select = [] { allocation_to_fail = 1; }; // that of the next command
        send(socket, "x");
        stack.take();
        zel_tun_ipv4_destroy(nullptr, 0, "red", 8);
        zel_tun_ipv4_destroy(nullptr, 0, "red", 9);
        EXPECT_TRUE(eventually([] { return starts == 2; }));
    }
    send(socket, "x");
    EXPECT_EQ(stack.take().first, 3);
}

TEST_F(Packets, AllowTheProcessToExitAtAnyTime) {
    add_interface("red", 3);
    std::thread{[socket = udp_socket("red")] {
        for (;;) {
            send(socket, "x");
            zel_tun_ipv4_packet_send(3, "x", 1);
        }
    }}.detach();
    stack.take(); // The case's own process exits now, at the end of the program.
}

} // namespace
