// Packets through TUN devices in a private namespace, beside bare system calls on the same
// descriptors.
//
// Receiving: the receive thread is held in a callback while packets are queued in the devices; then
// it, or a reference thread of the same priority and processor, drains them.
#include "Measure.hpp"

#include <zelkernel/checksum.h>
#include <zelkernel/locks.h>
#include <zelkernel/routing.h>
#include <zelkernel/tun.h>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

std::atomic<unsigned> allocations;

} // namespace

// Counts what the whole process, the library included, takes from the heap.
extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* malloc(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

namespace {

constexpr const char* instance = "bench";
constexpr int priority = 10;
constexpr std::size_t largest_packet = 1500;

struct Device {
    int fd;        // the library's own descriptor
    int interface; // Linux's number of the device, in the instance's namespace
};
std::vector<Device> devices;
int wakeup_pipe; // what the receive thread waits on besides the devices
int packet_socket;
int udp_socket;

const in_addr instance_address{htonl(0xc6336401)};
constexpr std::uint16_t udp_port = 9;

// What both sides of the receive path do with a packet: count it.
struct Drain {
    std::int64_t begin;
    std::int64_t end;
    unsigned received;
    unsigned expected;
    sem_t start;
    sem_t done;
} drain;

std::array<unsigned char, largest_packet> buffer;
std::atomic<bool> hold;
sem_t held;

void begin_drain() {
    drain.received = 0;
    drain.begin = bench::now_ns();
}

void count_packet() {
    if (++drain.received != drain.expected)
        return;
    drain.end = bench::now_ns();
    sem_post(&drain.done);
}

void receive(int, void*, int) {
    if (!hold.load(std::memory_order_relaxed)) {
        count_packet();
        return;
    }
    hold = false;
    sem_post(&held);
    __wrap_sem_wait(&drain.start);
    begin_drain();
}

void alloc_buffer(void** handle, void** data, int) {
    *handle = *data = buffer.data();
}

void free_buffer(void*) {}

// The whole of the reference: one select() on the same descriptors and, for each ready device, one
// read().
void drain_by_hand() {
    fd_set all;
    FD_ZERO(&all);
    FD_SET(wakeup_pipe, &all);
    int highest = wakeup_pipe;
    for (const Device& device : devices) {
        FD_SET(device.fd, &all);
        highest = std::max(highest, device.fd);
    }
    begin_drain();
    while (drain.received != drain.expected) {
        fd_set ready = all;
        if (select(highest + 1, &ready, nullptr, nullptr, nullptr) < 0)
            return;
        for (const Device& device : devices) {
            if (FD_ISSET(device.fd, &ready) && read(device.fd, buffer.data(), buffer.size()) >= 0)
                count_packet();
        }
    }
}

sem_t reference_start;

void* reference_thread(void*) {
    for (;;) {
        __wrap_sem_wait(&reference_start);
        drain_by_hand();
    }
}

void queue_packet(const Device& device, std::size_t size) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_IP);
    address.sll_ifindex = device.interface;
    static const std::array<unsigned char, largest_packet> packet{0x45};
    const auto sent = sendto(packet_socket, packet.data(), size, 0,
                             reinterpret_cast<const sockaddr*>(&address), sizeof address);
    bench::require(sent == static_cast<ssize_t>(size), "sendto");
}

// Which devices get packets, and how many each; a device's queue takes 500.
struct Load {
    std::size_t first;
    std::size_t count;
    unsigned packets_each;
};

void queue_load(const Load& load, std::size_t size) {
    for (unsigned i = 0; i < load.packets_each; ++i) {
        for (std::size_t device = 0; device < load.count; ++device)
            queue_packet(devices[load.first + device], size);
    }
    drain.expected = static_cast<unsigned>(load.count) * load.packets_each;
}

double run_drain(sem_t& start) {
    sem_post(&start);
    __wrap_sem_wait(&drain.done);
    return drain.expected * 1e9 / static_cast<double>(drain.end - drain.begin);
}

// The receive thread sleeps in its callback while the reference drains.
void hold_receive_thread() {
    hold = true;
    queue_packet(devices.front(), 64);
    __wrap_sem_wait(&held);
}

void measure_receive(const std::string& devices_text, const Load& load, std::size_t size) {
    const std::string path = "receive, " + std::to_string(size) + " bytes, " + devices_text;
    unsigned allocated = 0;
    constexpr int turns = 100;
    for (int turn = 0; turn < turns; ++turn) {
        hold_receive_thread();
        queue_load(load, size);
        bench::report(path.c_str(), "reference", run_drain(reference_start));
        queue_load(load, size);
        const unsigned before = allocations;
        const double rate = run_drain(drain.start);
        allocated += allocations - before;
        bench::report(path.c_str(), "ours", rate);
    }
    bench::report("heap allocations while receiving", "ours", allocated);
}

// A UDP packet to the socket in the instance.
std::array<unsigned char, largest_packet> udp_packet(std::size_t size) {
    iphdr ip{};
    ip.version = 4;
    ip.ihl = 5;
    ip.tot_len = htons(static_cast<std::uint16_t>(size));
    ip.ttl = 64;
    ip.protocol = IPPROTO_UDP;
    ip.saddr = htonl(0xc0000201);
    ip.daddr = instance_address.s_addr;
    ip.check = htons(IpAccelerators_GeneralChecksum(&ip, sizeof ip, 0xffff));
    udphdr udp{};
    udp.dest = htons(udp_port);
    udp.len = htons(static_cast<std::uint16_t>(size - sizeof ip));
    std::array<unsigned char, largest_packet> packet{};
    std::memcpy(packet.data(), &ip, sizeof ip);
    std::memcpy(packet.data() + sizeof ip, &udp, sizeof udp);
    return packet;
}

// Every packet has arrived at the socket when its write() has returned.
int empty_udp_socket() {
    int packets = 0;
    while (recv(udp_socket, buffer.data(), buffer.size(), MSG_DONTWAIT) >= 0)
        ++packets;
    return packets;
}

template<typename Send>
double send_rate(const Send& send) {
    constexpr int packets = 50; // as many as the socket takes in any case
    const std::int64_t begin = bench::now_ns();
    for (int i = 0; i < packets; ++i)
        send();
    const std::int64_t end = bench::now_ns();
    bench::require(empty_udp_socket() == packets, "packets arrived");
    return packets * 1e9 / static_cast<double>(end - begin);
}

void measure_send(const std::string& devices_text, std::size_t size) {
    const std::string path = "send, " + std::to_string(size) + " bytes, " + devices_text;
    const auto packet = udp_packet(size);
    const int index = static_cast<int>(devices.size()) - 1;
    const int fd = devices.back().fd;
    for (int turn = 0; turn < 800; ++turn) {
        bench::report(path.c_str(), "ours",
                      send_rate([&] { zel_tun_ipv4_packet_send(index, packet.data(), size); }));
        bench::report(path.c_str(), "reference", send_rate([&] {
                          [[maybe_unused]] const auto written = write(fd, packet.data(), size);
                      }));
    }
}

// Where the machine has no such setting, it needs none.
void write_setting(const char* path, const char* value) {
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    bench::require(fd == -1 || write(fd, value, 1) == 1, path);
    close(fd);
}

// Makes the instance and the sockets inside it.
void set_up_instance() {
    zel_vrf_create(nullptr, 0, instance);
    const int home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int there = open((std::string{"/run/netns/"} + instance).c_str(), O_RDONLY | O_CLOEXEC);
    bench::require(setns(there, CLONE_NEWNET) == 0, "setns");
    // Linux would send packets of its own through the devices, and mistrust the packets' source.
    write_setting("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");
    write_setting("/proc/sys/net/ipv4/conf/all/rp_filter", "0");
    write_setting("/proc/sys/net/ipv4/conf/default/rp_filter", "0");
    packet_socket = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bench::require(packet_socket != -1, "packet socket");
    udp_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(udp_port);
    bench::require(bind(udp_socket, reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0,
                   "UDP socket");
    bench::require(setns(home, CLONE_NEWNET) == 0, "setns back");
    close(home);
    close(there);
}

// The reading end of the process's only pipe.
int find_wakeup_pipe() {
    for (int fd = 3; fd < FD_SETSIZE; ++fd) {
        struct stat status {};
        if (fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode))
            return fd;
    }
    bench::require(false, "the wake-up pipe");
    return -1;
}

int descriptor_of(const std::string& name) {
    for (int fd = 0; fd < FD_SETSIZE; ++fd) {
        ifreq request{};
        if (ioctl(fd, TUNGETIFF, &request) == 0 && name == request.ifr_name)
            return fd;
    }
    return -1;
}

void create_devices(std::size_t count) {
    while (devices.size() < count) {
        const int index = static_cast<int>(devices.size());
        char output[512] = "";
        zel_tun_ipv4_create(output, sizeof output, instance, index);
        zel_tun_ipv4_status(nullptr, 0, instance, index, true);
        ifreq request{};
        const std::string name = "tun4_" + std::to_string(index);
        name.copy(request.ifr_name, IFNAMSIZ - 1);
        const int fd = descriptor_of(name);
        const bool found = fd != -1 && ioctl(packet_socket, SIOCGIFINDEX, &request) == 0;
        bench::require(found, output);
        devices.push_back({fd, request.ifr_ifindex});
    }
}

// Read to its end: the ip tool warns about an option here, and a closed pipe would end it before it
// has added the address.
void add_address() {
    char output[256];
    zel_tun_ipv4_address_add(output, sizeof output, instance, 0, &instance_address);
}

void measure_with(const std::string& text, const Load& load) {
    for (const std::size_t size : {std::size_t{64}, largest_packet})
        measure_receive(text, load, size);
}

} // namespace

int main() {
    for (sem_t* semaphore : {&drain.start, &drain.done, &held, &reference_start})
        sem_init(semaphore, 0, 0);
    bench::start_kernel(1'000'000);
    bench::pin_to_cpu0();
    wakeup_pipe = find_wakeup_pipe();
    set_up_instance();
    bench::start_thread(bench::fifo_attributes(bench::linux_priority(priority), 0),
                        reference_thread, nullptr);
    zel_tun_packet_init(receive, alloc_buffer, free_buffer, priority);
    create_devices(1);
    add_address();
    for (const std::size_t count : {1, 16, 256}) {
        create_devices(count);
        const std::string text =
            std::to_string(count) + (count == 1 ? " device" : " devices, one busy");
        measure_with(text, {count - 1, 1, count == 256 ? 100U : 400U});
        if (count == 16)
            measure_with("16 devices, all busy", {0, 16, 25});
        for (const std::size_t size : {std::size_t{64}, largest_packet})
            measure_send(std::to_string(count) + (count == 1 ? " device" : " devices"), size);
    }
    std::fflush(stdout);
    std::_Exit(EXIT_SUCCESS);
}
