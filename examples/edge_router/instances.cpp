#include "instances.hpp"

#include "command_report.hpp"

#include <arpa/inet.h>
#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <zelkernel/routing.h>
#include <zelkernel/system.h>
#include <zelkernel/tun.h>

namespace {

in_addr ipv4(const char* address) {
    in_addr binary{};
    inet_pton(AF_INET, address, &binary);
    return binary;
}

in6_addr ipv6(const char* address) {
    in6_addr binary{};
    inet_pton(AF_INET6, address, &binary);
    return binary;
}

void check(Checks& checks, const std::string& what, CommandReport& report) {
    std::fputs(report.all().c_str(), stderr);
    checks.expect(report.all().empty(), what + " without a complaint of the commands");
}

void create_devices(const char* instance, const Interface& interface, CommandReport& report) {
    const int index = interface.index;
    zel_tun_ipv4_create(report.next(), CommandReport::size, instance, index);
    zel_tun_ipv4_mtu(report.next(), CommandReport::size, instance, index, plan::mtu);
    zel_tun_ipv4_status(report.next(), CommandReport::size, instance, index, true);
    zel_tun_ipv6_create(report.next(), CommandReport::size, instance, index);
    zel_tun_ipv6_mtu(report.next(), CommandReport::size, instance, index, plan::mtu);
    zel_tun_ipv6_status(report.next(), CommandReport::size, instance, index, true);
}

// Addresses are added as host addresses: what lies behind the device is for the routes to tell.
void add_addresses_and_routes(const char* instance, const Interface& inside,
                              CommandReport& report) {
    const std::int32_t device = inside.index;
    const in_addr own4 = ipv4(plan::linux_ipv4), everything4 = ipv4("0.0.0.0");
    zel_tun_ipv4_address_add(report.next(), CommandReport::size, instance, device, &own4);
    zel_ipv4_route_add(report.next(), CommandReport::size, instance, &everything4, 0, 0, &device,
                       nullptr, 0);
    const in6_addr own6 = ipv6(plan::linux_ipv6), everything6 = ipv6("::");
    zel_tun_ipv6_address_add(report.next(), CommandReport::size, instance, device, &own6, 0, false);
    zel_ipv6_route_add(report.next(), CommandReport::size, instance, &everything6, 0, 0, &device,
                       nullptr, 0);
}

void add_external_routes(const char* instance, const Interface& external, CommandReport& report) {
    const in_addr destination4 = ipv4(plan::external_ipv4);
    zel_ipv4_external_route_add(report.next(), CommandReport::size, instance, external.index,
                                &destination4);
    const in6_addr destination6 = ipv6(plan::external_ipv6);
    zel_ipv6_external_route_add(report.next(), CommandReport::size, instance, external.index,
                                &destination6);
}

// An answer to external traffic comes in through another device than the one that the main table
// names for its sender. A namespace starts with the machine's own setting, which may be to drop
// such packets.
void accept_asymmetric_paths(const char* instance) {
    const std::string command = std::string("ip netns exec ") + instance +
                                " sh -c 'for file in all default; do echo 0 > "
                                "/proc/sys/net/ipv4/conf/$file/rp_filter; done' 2>/dev/null";
    zel_run_command(command.c_str(), nullptr, 0);
}

} // namespace

void create_instance(const Instance& instance, Checks& checks) {
    CommandReport report;
    zel_vrf_create(report.next(), CommandReport::size, instance.name);
    accept_asymmetric_paths(instance.name);
    create_devices(instance.name, instance.inside, report);
    create_devices(instance.name, instance.external, report);
    add_addresses_and_routes(instance.name, instance.inside, report);
    add_external_routes(instance.name, instance.external, report);
    check(checks, std::string(instance.name) + ": instance set up", report);
}

void mark_external_traffic(Checks& checks) {
    CommandReport report;
    zel_external_traffic_match_criteria_add(report.next(), CommandReport::size, IPPROTO_UDP, 0,
                                            plan::external_port);
    check(checks, "external traffic: marked", report);
}

void destroy_instance(const Instance& instance) {
    for (const Interface* interface : {&instance.inside, &instance.external}) {
        zel_tun_ipv4_destroy(nullptr, 0, instance.name, interface->index);
        zel_tun_ipv6_destroy(nullptr, 0, instance.name, interface->index);
    }
    // The receive thread deletes the devices a little later; those that it has not come to yet go
    // with the namespace.
    zel_vrf_destroy(nullptr, 0, instance.name);
}
