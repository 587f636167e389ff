// The tools that the network module runs, and trials of what it asks of the kernel: the commands
// are the library's own.
#include "Check.hpp"

#include "Command.hpp"
#include "Text.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <memory>
#include <sys/ioctl.h>
#include <unistd.h>

namespace zel::doctor {
namespace {

Finding version(const char* command) {
    const auto [succeeded, output] = run_command(command);
    return {succeeded ? Status::ok : Status::missing, first_line(output)};
}

Finding named_namespaces(const Request&) {
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir("/var/run/netns"), closedir);
    std::vector<std::string> names;
    while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
        if (entry->d_name[0] != '.')
            names.emplace_back(entry->d_name);
    }
    if (names.empty())
        return {Status::ok, "none"};
    std::sort(names.begin(), names.end());
    std::string list = names.front();
    for (std::size_t i = 1; i < names.size(); ++i)
        list += ", " + names[i];
    return {Status::note, "start-up would delete: " + list};
}

constexpr Check tools[] = {
    {"ip", [](const Request&) { return version("ip -V"); },
     "no routing instance, TUN device, address or route can be made",
     "install iproute2 (BusyBox's ip has no namespaces)"},
    {"iptables", [](const Request&) { return version("iptables -V"); },
     "external IPv4 traffic is not marked and leaves by the ordinary routes",
     "install iptables, and have /usr/sbin in PATH"},
    {"ip6tables", [](const Request&) { return version("ip6tables -V"); },
     "external IPv6 traffic is not marked and leaves by the ordinary routes",
     "install iptables, and have /usr/sbin in PATH"},
    {"named namespaces", named_namespaces,
     "zel_kernel_init deletes every named network namespace, whoever made it",
     "start the application in a mount namespace with a /run/netns of its own"},
};

const char* remedy_for_opening(int error) {
    switch (error) {
    case EACCES:
        return "let the user open it (chmod 0666 /dev/net/tun, or a rule of udev), or add the "
               "ambient capability dac_override";
    case EPERM: // of the file's own rights there would be EACCES
        return "let the control group have the device (in a container: --device /dev/net/tun; in a "
               "systemd unit: DeviceAllow=/dev/net/tun rw)";
    default:
        return "";
    }
}

Finding tun_device() {
    const int fd = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return {Status::missing, format("/dev/net/tun: %s", std::strerror(errno)),
                remedy_for_opening(errno)};
    }
    Finding made = all_succeed({"ip tuntap add dev tun4_0 mode tun"});
    if (made.status != Status::ok) {
        close(fd);
        return made;
    }
    ifreq request{};
    std::strcpy(request.ifr_name, "tun4_0");
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    const bool opened = ioctl(fd, TUNSETIFF, &request) == 0;
    const std::string error = std::strerror(errno);
    const Finding moved = all_succeed({"ip link set dev tun4_0 netns \"zelkernel-doctor\""});
    close(fd);
    return opened ? moved : Finding{Status::missing, "TUNSETIFF: " + error};
}

#define IN_INSTANCE "ip netns exec \"zelkernel-doctor\" "
#define POLICY_RULES(ip)                                                                           \
    [](const Request&) {                                                                           \
        return all_succeed({IN_INSTANCE ip " rule add fwmark 100 pref 100 table 100",              \
                            IN_INSTANCE ip " rule del pref 0",                                     \
                            IN_INSTANCE ip " rule add pref 110 table local"});                     \
    }
#define MARK_RULE(tables)                                                                          \
    [](const Request&) {                                                                           \
        return mark_rule(tables, IN_INSTANCE tables                                                \
                         " -t mangle -A OUTPUT -p 17 --dport 53 -j MARK --set-mark 100");          \
    }

Finding mark_rule(const char* tables, const char* command) {
    Finding made = all_succeed({command});
    if (!made.remedy.empty() && is_legacy_iptables(tables))
        made.remedy = rights_remedy({net_admin, sys_admin, net_raw});
    return made;
}

constexpr const char* instance = "network namespaces";

// In this order: each stands on those before it.
constexpr Check networks[] = {
    {instance,
     [](const Request&) {
         return all_succeed({"ip netns add \"zelkernel-doctor\"", IN_INSTANCE "true"});
     },
     "no routing instance can be made",
     "use a kernel with CONFIG_NET_NS",
     {"ip"}},
    {"TUN driver",
     [](const Request&) { return tun_device(); },
     "no packet passes between the IP stack and Linux (\"No IP stack synchronization.\")",
     "use a kernel with CONFIG_TUN (modprobe tun), and: mkdir -p /dev/net && mknod /dev/net/tun c "
     "10 200",
     {instance}},
    {"policy routing, IPv4",
     POLICY_RULES("ip"),
     "external IPv4 traffic is not told apart from other traffic",
     "use a kernel with CONFIG_IP_MULTIPLE_TABLES",
     {instance}},
    {"policy routing, IPv6",
     POLICY_RULES("ip -6"),
     "external IPv6 traffic is not told apart from other traffic",
     "use a kernel with CONFIG_IPV6 and CONFIG_IPV6_MULTIPLE_TABLES",
     {instance}},
    {"table name external",
     [](const Request&) {
         return all_succeed({IN_INSTANCE "ip rule add pref 120 table external"});
     },
     "the rule for external traffic and all external routes are refused",
     "mkdir -p /etc/iproute2/rt_tables.d && echo '100 external' > "
     "/etc/iproute2/rt_tables.d/zelkernel.conf",
     {instance}},
    {"mark target, IPv4",
     MARK_RULE("iptables"),
     "external IPv4 traffic is not marked and leaves by the ordinary routes",
     "use a kernel with CONFIG_IP_NF_MANGLE (or nf_tables) and CONFIG_NETFILTER_XT_TARGET_MARK",
     {instance, "iptables"}},
    {"mark target, IPv6",
     MARK_RULE("ip6tables"),
     "external IPv6 traffic is not marked and leaves by the ordinary routes",
     "use a kernel with CONFIG_IP6_NF_MANGLE (or nf_tables) and CONFIG_NETFILTER_XT_TARGET_MARK",
     {instance, "ip6tables"}},
};

} // namespace

std::span<const Check> tool_checks() {
    return tools;
}

std::span<const Check> network_checks() {
    return networks;
}

} // namespace zel::doctor
