// Link state, MTU and addresses of TUN devices.
#include "Commands.hpp"
#include "OutputText.hpp"
#include "PosixLock.hpp"
#include "State.hpp"

#include <zelkernel/tun.h>

#include <algorithm>

namespace zel::network {
namespace {

constexpr int largest_mtu = 65535;

void zel_tun_status(char* output, size_t output_size, const char* name, int index, bool up,
                    int family) {
    report_into(output, output_size, [=](OutputText& text) {
        text.run(composed({in_instance(name), "ip link set dev ", device_name(family, index),
                           up ? " up" : " down", " 2>&1"}));
    });
}

// An MTU below 1 must not become the size of a read.
void record_mtu(int index, int mtu, int family) {
    if (mtu < 1)
        return;
    const PosixLock lock{state->fd_map_mutex};
    const int fd = state->tun_fds(family).find(index);
    if (fd != -1)
        state->fd_map.at(fd).set_mtu(mtu);
}

void zel_tun_mtu(char* output, size_t output_size, const char* name, int index, int mtu,
                 int family) {
    report_into(output, output_size, [=](OutputText& text) {
        const int applied = std::min(mtu, largest_mtu);
        const std::string command =
            composed({in_instance(name), "ip link set dev ", device_name(family, index), " mtu ",
                      decimal(applied), " 2>&1"});
        record_mtu(index, applied, family);
        text.run(command);
    });
}

std::string_view scope(int family, bool link_scope) {
    if (family == AF_INET)
        return "";
    return link_scope ? " scope link" : " scope global";
}

void zel_tun_address(char* output, size_t output_size, const char* name, int index,
                     const void* address, bool link_scope, bool remove, int family) {
    report_into(output, output_size, [=](OutputText& text) {
        const auto host = address_text(family, address);
        if (!host)
            return;
        const std::string_view length = family == AF_INET ? "/32" : "/128";
        text.run(composed({in_instance(name), "ip addr ", remove ? "del " : "add ", *host,
                           remove ? length : scope(family, link_scope), " dev ",
                           device_name(family, index), " nodad 2>&1"}));
    });
}

} // namespace
} // namespace zel::network

using namespace zel::network;

void zel_tun_ipv4_status(char* output, size_t output_size, const char* name, int index, bool up) {
    zel_tun_status(output, output_size, name, index, up, AF_INET);
}

void zel_tun_ipv6_status(char* output, size_t output_size, const char* name, int index, bool up) {
    zel_tun_status(output, output_size, name, index, up, AF_INET6);
}

void zel_tun_ipv4_mtu(char* output, size_t output_size, const char* name, int index, int mtu) {
    zel_tun_mtu(output, output_size, name, index, mtu, AF_INET);
}

void zel_tun_ipv6_mtu(char* output, size_t output_size, const char* name, int index, int mtu) {
    zel_tun_mtu(output, output_size, name, index, mtu, AF_INET6);
}

void zel_tun_ipv4_address_add(char* output, size_t output_size, const char* name, int index,
                              const in_addr* address) {
    zel_tun_address(output, output_size, name, index, address, false, false, AF_INET);
}

void zel_tun_ipv4_address_del(char* output, size_t output_size, const char* name, int index,
                              const in_addr* address) {
    zel_tun_address(output, output_size, name, index, address, false, true, AF_INET);
}

void zel_tun_ipv6_address_add(char* output, size_t output_size, const char* name, int index,
                              const in6_addr* address, uint32_t, bool link_scope) {
    zel_tun_address(output, output_size, name, index, address, link_scope, false, AF_INET6);
}

void zel_tun_ipv6_address_del(char* output, size_t output_size, const char* name, int index,
                              const in6_addr* address) {
    zel_tun_address(output, output_size, name, index, address, false, true, AF_INET6);
}
