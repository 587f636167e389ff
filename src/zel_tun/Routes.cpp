// Static routes.
#include "Commands.hpp"
#include "OutputText.hpp"

#include <zelkernel/routing.h>

namespace zel::network {
namespace {

void route_update(char* output, size_t output_size, const char* name, const void* destination,
                  uint32_t prefix_length, const int32_t* interface_index, const void* gateway,
                  bool remove, int family) {
    report_into(output, output_size, [=](OutputText& text) {
        const auto network = address_text(family, destination);
        if (!network)
            return;
        std::string command = composed({in_instance(name), "ip route ", remove ? "del " : "append ",
                                        *network, "/", decimal(prefix_length)});
        if (gateway != nullptr) {
            const auto via = address_text(family, gateway);
            if (!via)
                return;
            command += composed({" via ", *via});
        }
        if (interface_index != nullptr)
            command += composed({" dev ", device_name(family, *interface_index)});
        command += " protocol static 2>&1";
        text.run(command);
    });
}

} // namespace
} // namespace zel::network

using namespace zel::network;

void zel_ipv4_route_add(char* output, size_t output_size, const char* name,
                        const in_addr* destination, uint32_t, uint32_t prefix_length,
                        const int32_t* interface_index, const in_addr* gateway, uint32_t) {
    route_update(output, output_size, name, destination, prefix_length, interface_index, gateway,
                 false, AF_INET);
}

void zel_ipv4_route_del(char* output, size_t output_size, const char* name,
                        const in_addr* destination, uint32_t, uint32_t prefix_length,
                        const int32_t* interface_index, const in_addr* gateway, uint32_t) {
    route_update(output, output_size, name, destination, prefix_length, interface_index, gateway,
                 true, AF_INET);
}

void zel_ipv6_route_add(char* output, size_t output_size, const char* name,
                        const in6_addr* destination, uint32_t, uint32_t prefix_length,
                        const int32_t* interface_index, const in6_addr* gateway, uint32_t) {
    route_update(output, output_size, name, destination, prefix_length, interface_index, gateway,
                 false, AF_INET6);
}

void zel_ipv6_route_del(char* output, size_t output_size, const char* name,
                        const in6_addr* destination, uint32_t, uint32_t prefix_length,
                        const int32_t* interface_index, const in6_addr* gateway, uint32_t) {
    route_update(output, output_size, name, destination, prefix_length, interface_index, gateway,
                 true, AF_INET6);
}
