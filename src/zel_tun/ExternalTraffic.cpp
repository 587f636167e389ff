// External traffic: the criteria that mark it, and its routes.
#include "ExternalTraffic.hpp"

#include "Commands.hpp"
#include "OutputText.hpp"
#include "PosixLock.hpp"
#include "State.hpp"

#include <zelkernel/routing.h>

#include <algorithm>
#include <vector>

namespace zel::network {

std::string marking_command(std::string_view instance, int family, const char* action,
                            const std::string& criterion) {
    return composed({in_instance(instance), family == AF_INET ? "iptables" : "ip6tables",
                     " -t mangle ", action, " OUTPUT ", criterion, " -j MARK --set-mark ",
                     external_mark, " 2>&1"});
}

namespace {

std::string criterion_text(int32_t protocol, int32_t source_port, int32_t destination_port) {
    std::string text = composed({"-p ", decimal(protocol)});
    if (source_port != 0)
        text += composed({" --sport ", decimal(source_port)});
    if (destination_port != 0)
        text += composed({" --dport ", decimal(destination_port)});
    return text;
}

std::vector<std::string> commands_for_all_instances(const char* action,
                                                    const std::string& criterion) {
    std::vector<std::string> commands;
    for (const auto& [name, devices] : state->vrf_map) {
        for (const int family : {AF_INET, AF_INET6})
            commands.push_back(marking_command(name, family, action, criterion));
    }
    return commands;
}

void remove_first(std::list<std::string>& criteria, const std::string& criterion) {
    const auto found = std::find(criteria.begin(), criteria.end(), criterion);
    if (found != criteria.end())
        criteria.erase(found);
}

// The lock is held from the change of the list through the last command: an instance created
// meanwhile gets the criterion either here or by its own replay, never twice and never not at all.
// All that may run out of memory comes before the change.
void external_traffic_match_criteria_update(char* output, size_t output_size, int32_t protocol,
                                            int32_t source_port, int32_t destination_port,
                                            bool remove) {
    report_into(output, output_size, [=](OutputText& text) {
        text.clear();
        std::list<std::string> criterion{criterion_text(protocol, source_port, destination_port)};
        const PosixLock lock{state->fd_map_mutex};
        const auto commands = commands_for_all_instances(remove ? "-D" : "-A", criterion.front());
        auto& criteria = state->external_traffic_criteria;
        if (remove) {
            remove_first(criteria, criterion.front());
        } else {
            criteria.splice(criteria.end(), criterion);
        }
        for (const std::string& command : commands)
            text.run(command);
    });
}

void external_route_update(char* output, size_t output_size, const char* name,
                           int32_t interface_index, const void* address, bool remove, int family) {
    report_into(output, output_size, [=](OutputText& text) {
        const auto host = address_text(family, address);
        if (!host)
            return;
        text.run(composed({in_instance(name), "ip route ", remove ? "del " : "append ", *host,
                           " dev ", device_name(family, interface_index), " table external 2>&1"}));
    });
}

} // namespace
} // namespace zel::network

using namespace zel::network;

void zel_external_traffic_match_criteria_add(char* output, size_t output_size, int32_t protocol,
                                             int32_t source_port, int32_t destination_port) {
    external_traffic_match_criteria_update(output, output_size, protocol, source_port,
                                           destination_port, false);
}

void zel_external_traffic_match_criteria_del(char* output, size_t output_size, int32_t protocol,
                                             int32_t source_port, int32_t destination_port) {
    external_traffic_match_criteria_update(output, output_size, protocol, source_port,
                                           destination_port, true);
}

void zel_ipv4_external_route_add(char* output, size_t output_size, const char* name,
                                 int32_t interface_index, const in_addr* address) {
    external_route_update(output, output_size, name, interface_index, address, false, AF_INET);
}

void zel_ipv4_external_route_del(char* output, size_t output_size, const char* name,
                                 int32_t interface_index, const in_addr* address) {
    external_route_update(output, output_size, name, interface_index, address, true, AF_INET);
}

void zel_ipv6_external_route_add(char* output, size_t output_size, const char* name,
                                 int32_t interface_index, const in6_addr* address) {
    external_route_update(output, output_size, name, interface_index, address, false, AF_INET6);
}

void zel_ipv6_external_route_del(char* output, size_t output_size, const char* name,
                                 int32_t interface_index, const in6_addr* address) {
    external_route_update(output, output_size, name, interface_index, address, true, AF_INET6);
}
