#include "Commands.hpp"

#include <arpa/inet.h>

namespace zel::network {

std::string composed(std::initializer_list<std::string_view> fragments) {
    std::string text;
    for (const std::string_view fragment : fragments)
        text += fragment;
    return text;
}

std::string decimal(std::int64_t number) {
    return std::to_string(number);
}

std::string device_name(int family, int index) {
    return composed({family == AF_INET ? "tun4_" : "tun6_", decimal(index)});
}

std::string in_instance(std::string_view name) {
    return composed({"ip netns exec \"", name, "\" "});
}

std::optional<std::string> address_text(int family, const void* address) {
    char text[INET6_ADDRSTRLEN];
    if (inet_ntop(family, address, text, sizeof text) == nullptr)
        return std::nullopt;
    return text;
}

} // namespace zel::network
