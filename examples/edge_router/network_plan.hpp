// The two routing instances and their addresses. Both have the same addresses, on purpose.
#pragma once

#include <array>

// An interface of a routing instance: the TUN devices tun4_<index> and tun6_<index> on Linux's
// side, one interface that carries both families on the IP stack's side.
struct Interface {
    int index;
    const char* name;
    const char* ipv4; // the IP stack's addresses
    const char* ipv6;
};

struct Instance {
    const char* name;
    Interface inside;   // everything, by the main routing table
    Interface external; // what is marked as external traffic, by the table `external`
};

namespace plan {

inline constexpr const char* stack_ipv4 = "10.77.0.1";
inline constexpr const char* stack_ipv6 = "fd77::1";
inline constexpr const char* linux_ipv4 = "10.77.0.2";
inline constexpr const char* linux_ipv6 = "fd77::2";
inline constexpr const char* external_ipv4 = "192.0.2.53";
inline constexpr const char* external_ipv6 = "2001:db8::53";

inline constexpr int mtu = 1400;
inline constexpr int http_port = 80;
inline constexpr int external_port = 53; // UDP queries to it are external traffic,
inline constexpr int ordinary_port = 54; // to this one they are not

inline constexpr std::array<Instance, 2> instances{{
    {"red",
     {1, "red inside", stack_ipv4, stack_ipv6},
     {2, "red external", external_ipv4, external_ipv6}},
    {"blue",
     {3, "blue inside", stack_ipv4, stack_ipv6},
     {4, "blue external", external_ipv4, external_ipv6}},
}};

} // namespace plan
