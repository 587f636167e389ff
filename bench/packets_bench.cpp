// Packets through TUN devices in a private namespace, beside bare system calls on the same
// descriptors.
//
// Receiving: the receive thread is held in a callback while packets are queued in the devices; then
// it, or a reference thread of the same priority and processor, drains them. Light load: packets
// come one at a time, to one device after the other, and what counts is the processor time.
#include "TunInstance.hpp"

#include <zelkernel/checksum.h>
#include <zelkernel/locks.h>

#include <algorithm>
#include <atomic>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <optional>
#include <span>

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

using bench::Device;
using bench::largest_packet;

constexpr const char* name = "bench";
constexpr int priority = 10;

std::optional<bench::TunInstance> instance;
int wakeup_pipe; // what the receive thread waits on besides the devices
int udp_socket;

const in_addr instance_address{htonl(0xc6336401)};
constexpr std::uint16_t udp_port = 9;

// What both sides of the receive path do with a packet: count it.
struct Drain {
    std::int64_t begin;
    std::int64_t end;
    std::int64_t begin_processor; // time of the draining thread
    std::int64_t end_processor;
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
    drain.begin_processor = bench::now_ns(CLOCK_THREAD_CPUTIME_ID);
    drain.begin = bench::now_ns();
}

void count_packet() {
    if (++drain.received != drain.expected)
        return;
    drain.end = bench::now_ns();
    drain.end_processor = bench::now_ns(CLOCK_THREAD_CPUTIME_ID);
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

std::span<const Device> reference_devices; // what the loop below waits for

// The whole of the reference: one select() on the descriptors and, for each ready device, one
// read().
void drain_by_hand() {
    fd_set all;
    FD_ZERO(&all);
    FD_SET(wakeup_pipe, &all);
    int highest = wakeup_pipe;
    for (const Device& device : reference_devices) {
        FD_SET(device.fd, &all);
        highest = std::max(highest, device.fd);
    }
    begin_drain();
    while (drain.received != drain.expected) {
        fd_set ready = all;
        if (select(highest + 1, &ready, nullptr, nullptr, nullptr) < 0)
            return;
        for (const Device& device : reference_devices) {
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

// Which devices get packets, and how many each; a device's queue takes 500.
struct Load {
    std::size_t first;
    std::size_t count;
    unsigned packets_each;
};

void queue_load(const Load& load, std::size_t size) {
    for (unsigned i = 0; i < load.packets_each; ++i) {
        for (std::size_t device = 0; device < load.count; ++device)
            instance->queue_packet(instance->devices()[load.first + device], size);
    }
    drain.expected = static_cast<unsigned>(load.count) * load.packets_each;
}

double run_drain(sem_t& start) {
    sem_post(&start);
    __wrap_sem_wait(&drain.done);
    return drain.expected * 1e9 / static_cast<double>(drain.end - drain.begin);
}

double run_reference_drain(std::span<const Device> devices) {
    reference_devices = devices;
    return run_drain(reference_start);
}

// The receive thread sleeps in its callback while the reference drains.
void hold_receive_thread() {
    hold = true;
    instance->queue_packet(instance->devices().front(), 64);
    __wrap_sem_wait(&held);
}

void measure_receive(const std::string& devices_text, const Load& load, std::size_t size) {
    const std::string path = "receive, " + std::to_string(size) + " bytes, " + devices_text;
    unsigned allocated = 0;
    const std::span<const Device> all = instance->devices();
    // The reference takes its time with many devices.
    const int turns = bench::turns(all.size() == 256 ? 25 : 100);
    for (int turn = 0; turn < turns; ++turn) {
        hold_receive_thread();
        queue_load(load, size);
        bench::report(path.c_str(), "reference", run_reference_drain(all));
        if (load.count == 1) {
            queue_load(load, size);
            bench::report(path.c_str(), "alone", run_reference_drain(all.subspan(load.first, 1)));
        }
        queue_load(load, size);
        const unsigned before = allocations;
        const double rate = run_drain(drain.start);
        allocated += allocations - before;
        bench::report(path.c_str(), "ours", rate);
    }
    bench::report("heap allocations while receiving", "ours", allocated);
}

// 50 packets a second for each device, for a second, evenly spread.
double light_load_processor_time(sem_t& start) {
    drain.expected = 50 * static_cast<unsigned>(instance->devices().size());
    sem_post(&start);
    std::int64_t next = bench::now_ns();
    for (unsigned i = 0; i < drain.expected; ++i) {
        next += 1'000'000'000 / drain.expected;
        bench::sleep_until(next);
        instance->queue_packet(instance->devices()[i % instance->devices().size()], 64);
    }
    __wrap_sem_wait(&drain.done);
    return static_cast<double>(drain.end_processor - drain.begin_processor);
}

void measure_light_load() {
    const std::string path = "processor time, " + std::to_string(instance->devices().size()) +
                             " devices, 50 packets/s each";
    reference_devices = instance->devices();
    for (int turn = 0; turn < bench::turns(3); ++turn) {
        hold_receive_thread();
        bench::report(path.c_str(), "reference", light_load_processor_time(reference_start));
        bench::report(path.c_str(), "ours", light_load_processor_time(drain.start));
    }
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
    const int index = static_cast<int>(instance->devices().size()) - 1;
    const int fd = instance->devices().back().fd;
    for (int turn = 0; turn < bench::turns(800); ++turn) {
        bench::report(path.c_str(), "ours",
                      send_rate([&] { zel_tun_ipv4_packet_send(index, packet.data(), size); }));
        bench::report(path.c_str(), "reference", send_rate([&] {
                          [[maybe_unused]] const auto written = write(fd, packet.data(), size);
                      }));
    }
}

void open_udp_socket() {
    udp_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(udp_port);
    bench::require(bind(udp_socket, reinterpret_cast<const sockaddr*>(&any), sizeof any) == 0,
                   "UDP socket");
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

// Read to its end: the ip tool warns about an option here, and a closed pipe would end it before it
// has added the address.
void add_address() {
    char output[256];
    zel_tun_ipv4_address_add(output, sizeof output, name, 0, &instance_address);
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
    instance.emplace(name);
    instance->in_namespace(open_udp_socket);
    bench::start_thread(bench::fifo_attributes(bench::linux_priority(priority), 0),
                        reference_thread, nullptr);
    zel_tun_packet_init(receive, alloc_buffer, free_buffer, priority);
    instance->create_devices(1);
    add_address();
    for (const std::size_t count : {1, 16, 256}) {
        instance->create_devices(count);
        const std::string text =
            std::to_string(count) + (count == 1 ? " device" : " devices, one busy");
        measure_with(text, {count - 1, 1, 400U});
        if (count == 16)
            measure_with("16 devices, all busy", {0, 16, 25});
        for (const std::size_t size : {std::size_t{64}, largest_packet})
            measure_send(std::to_string(count) + (count == 1 ? " device" : " devices"), size);
    }
    measure_light_load();
    std::fflush(stdout);
    std::_Exit(EXIT_SUCCESS);
}
