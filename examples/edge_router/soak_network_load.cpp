#include "soak_network_load.hpp"

#include "app_threads.hpp"
#include "instances.hpp"
#include "priorities.hpp"
#include "soak_flow.hpp"
#include "soak_stack.hpp"
#include "soak_watch.hpp"

#include <array>
#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>
#include <zelkernel/routing.h>
#include <zelkernel/system.h>
#include <zelkernel/tun.h>

namespace soak {

namespace {

constexpr std::size_t stack_size = std::size_t{128} * 1024;
constexpr unsigned window = 8; // messages on their way at a time: what a socket surely holds

// Instances that come and go, next to those of the plan.
constexpr std::array<Instance, 2> passing{{
    {"passing-a",
     {101, "a inside", plan::stack_ipv4, plan::stack_ipv6},
     {102, "a external", plan::external_ipv4, plan::external_ipv6}},
    {"passing-b",
     {103, "b inside", plan::stack_ipv4, plan::stack_ipv6},
     {104, "b external", plan::external_ipv4, plan::external_ipv6}},
}};
constexpr int lowest_passing_index = 101, highest_passing_index = 104;

std::atomic<int> working{0};

// How many marking rules an instance has that contain `what`, in both families.
int marking_rules(const char* instance, const std::string& what) {
    char text[16] = "";
    const std::string in_instance = "ip netns exec " + std::string(instance) + " ";
    const std::string command = "(" + in_instance + "iptables -t mangle -S OUTPUT; " + in_instance +
                                "ip6tables -t mangle -S OUTPUT) | grep -c -- '" + what + " '";
    zel_run_command(command.c_str(), text, sizeof text);
    return std::atoi(text);
}

void expect_marking_rules(int expected, const char* instance, int port) {
    const int found = marking_rules(instance, "--dport " + std::to_string(port));
    if (found != expected) {
        fault(std::string(instance) + ": " + std::to_string(found) + " rules instead of " +
              std::to_string(expected) + " mark port " + std::to_string(port));
    }
}

bool exchange(const Instance& instance, unsigned messages, unsigned on_their_way) {
    bool held = true;
    for (const int family : {AF_INET, AF_INET6}) {
        for_each_interface(instance, family == AF_INET,
                           [&](const Interface& through, const char* to, int port) {
                               Flow flow(instance.name, through, family, to, port);
                               held = held && flow.exchange(messages);
                               flow.send(on_their_way);
                           });
    }
    return held;
}

// One family of one instance that stays.
struct Peer {
    const Instance* instance;
    int family;
};

void* exchange_all_the_time(void* argument) {
    const Peer& peer = *static_cast<const Peer*>(argument);
    const bool is_v4 = peer.family == AF_INET;
    const auto flow_to = [&peer](const Interface& through, const char* to, int port) {
        return Flow(peer.instance->name, through, peer.family, to, port);
    };
    Flow inside = flow_to(peer.instance->inside, is_v4 ? plan::stack_ipv4 : plan::stack_ipv6,
                          plan::ordinary_port);
    Flow external = flow_to(peer.instance->external,
                            is_v4 ? plan::external_ipv4 : plan::external_ipv6, plan::external_port);
    while (!stopping() && inside.exchange(window) && external.exchange(window)) {
        usleep(10'000);
    }
    --working;
    return nullptr;
}

// Destroyed with packets on their way, and made again under the same name with the same indices.
void* pass_instances(void* argument) {
    const auto& instance = *static_cast<const Instance*>(argument);
    while (!stopping()) {
        Checks checks;
        create_instance(instance, checks);
        if (!checks.all_held()) {
            fault(std::string(instance.name) + " was set up with complaints");
        }
        expect_marking_rules(2, instance.name, plan::external_port);
        exchange(instance, window, 2 * window);
        destroy_instance(instance);
        ++figures.instances;
        figures.devices += 4;
    }
    --working;
    return nullptr;
}

// To devices that come and go: what a packet meets is an open device or none, never another file.
void* send_strays(void*) {
    // An empty UDP datagram to the discard port, in IPv4; Linux checks the sums before the port.
    constexpr unsigned char packet[28] = {0x45, 0, 0, 28, 0,  0, 0, 0, 64, 17, 0x65, 0x37, 10,
                                          77,   0, 1, 10, 77, 0, 2, 0, 9,  0,  9,    0,    8};
    while (!stopping()) {
        for (int index = lowest_passing_index; index <= highest_passing_index; ++index) {
            zel_tun_ipv4_packet_send(index, packet, sizeof packet);
            ++figures.strays;
        }
        usleep(2000);
    }
    --working;
    return nullptr;
}

// Files and pipes that have nothing to do with any device, on descriptor numbers that devices had
// and will have again.
void* guard_other_descriptors(void*) {
    while (!stopping()) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
            fault("a pipe cannot be had");
            break;
        }
        const int file = memfd_create("bystander", MFD_CLOEXEC);
        usleep(500);
        char byte = 0;
        if (lseek(file, 0, SEEK_END) != 0 || read(ends[0], &byte, 1) != -1) {
            fault("something was written to a descriptor of another");
        }
        for (const int descriptor : {file, ends[0], ends[1]}) {
            close(descriptor);
        }
    }
    --working;
    return nullptr;
}

void change_criterion(int port) {
    char text[256] = "";
    zel_external_traffic_match_criteria_add(text, sizeof text, IPPROTO_TCP, 0, port);
    for (const Instance& instance : plan::instances) {
        expect_marking_rules(2, instance.name, port);
    }
    zel_external_traffic_match_criteria_del(text, sizeof text, IPPROTO_TCP, 0, port);
    for (const Instance& instance : plan::instances) {
        expect_marking_rules(0, instance.name, port);
    }
}

void* change_settings(void*) {
    for (int round = 0; !stopping(); ++round) {
        change_criterion(1000 + round % 1000);
        for (const Instance& instance : plan::instances) {
            const int mtu = smallest_mtu + round * 37 % (largest_mtu - smallest_mtu + 1);
            zel_tun_ipv4_mtu(nullptr, 0, instance.name, instance.inside.index, mtu);
            zel_tun_ipv6_mtu(nullptr, 0, instance.name, instance.external.index, mtu);
        }
        figures.settings += 2 + 2 * plan::instances.size();
    }
    --working;
    return nullptr;
}

void start(const char* name, void* (*routine)(void*), const void* argument = nullptr) {
    ++working;
    start_app_thread(name, priority::client, routine, const_cast<void*>(argument), stack_size,
                     Processors::all);
}

} // namespace

void start_network_load() {
    Checks checks;
    for (const Instance& instance : plan::instances) {
        create_instance(instance, checks);
    }
    mark_external_traffic(checks);
    if (!checks.all_held()) {
        fault("the instances were set up with complaints");
    }
    static std::array<Peer, 2 * plan::instances.size()> peers;
    std::size_t next = 0;
    for (const Instance& instance : plan::instances) {
        for (const int family : {AF_INET, AF_INET6}) {
            Peer& peer = peers[next++] = {&instance, family};
            start(family == AF_INET ? "peer IPv4" : "peer IPv6", exchange_all_the_time, &peer);
        }
    }
    for (const Instance& instance : passing) {
        start(instance.name, pass_instances, &instance);
    }
    start("strays", send_strays);
    start("bystander", guard_other_descriptors);
    start("settings", change_settings);
}

bool network_load_ended() {
    return working == 0;
}

void finish_network_load() {
    for (const Instance& instance : plan::instances) {
        destroy_instance(instance);
    }
}

} // namespace soak
