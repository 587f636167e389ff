// Fragments that the commands of several operations share.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zel::network {

// "tun4_3", "tun6_3"
std::string device_name(int family, int index);

// `ip netns exec "red" `: what follows runs inside the routing instance.
std::string in_instance(std::string_view name);

// An address in network byte order as text; nothing when it cannot be converted.
std::optional<std::string> address_text(int family, const void* address);

} // namespace zel::network
