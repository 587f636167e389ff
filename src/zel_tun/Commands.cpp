#include "Commands.hpp"

#include <arpa/inet.h>

namespace zel::network {

std::string device_name(int family, int index) {
    return (family == AF_INET ? "tun4_" : "tun6_") + std::to_string(index);
}

std::string in_instance(std::string_view name) {
    return "ip netns exec \"" + std::string{name} + "\" ";
}

std::optional<std::string> address_text(int family, const void* address) {
    char text[INET6_ADDRSTRLEN];
    if (inet_ntop(family, address, text, sizeof text) == nullptr)
        return std::nullopt;
    return text;
}

} // namespace zel::network
