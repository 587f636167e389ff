// Fragments that the commands of several operations share.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace zel::network {

// A command from its fragments. (In one place: each + of strings would be some 50 bytes of code.)
std::string composed(std::initializer_list<std::string_view> fragments);

std::string decimal(std::int64_t number);

// "tun4_3", "tun6_3"
std::string device_name(int family, int index);

// `ip netns exec "red" `: what follows runs inside the routing instance.
std::string in_instance(std::string_view name);

// An address in network byte order as text; nothing when it cannot be converted.
std::optional<std::string> address_text(int family, const void* address);

} // namespace zel::network
