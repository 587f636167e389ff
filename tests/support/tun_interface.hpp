#pragma once

#include <arpa/inet.h>
#include <cstdint>
#include <fstream>
#include <net/if.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zel::test {

// Brings the device tun4_INDEX up in the calling process's own namespace, with the address
// 10.INDEX.0.1/24, in a fraction of the time that the `ip` tool takes. False when there is none.
// Without IPv6, for which Linux sends packets of its own accord, which cases would count.
inline bool bring_up(int index) {
    const std::string device = "tun4_" + std::to_string(index);
    std::ofstream{"/proc/sys/net/ipv6/conf/" + device + "/disable_ipv6"} << 1;
    const int control = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    device.copy(request.ifr_name, IFNAMSIZ - 1);
    auto& address = reinterpret_cast<sockaddr_in&>(request.ifr_addr);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(0x0a000001u | static_cast<uint32_t>(index) << 16);
    bool done = ioctl(control, SIOCSIFADDR, &request) == 0;
    address.sin_addr.s_addr = htonl(0xffffff00);
    done = done && ioctl(control, SIOCSIFNETMASK, &request) == 0;
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    done = done && ioctl(control, SIOCSIFFLAGS, &request) == 0;
    close(control);
    return done;
}

// A UDP socket whose packets leave through that device.
inline int socket_through(int index) {
    const int result = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in peer{AF_INET, htons(7), {}, {}};
    peer.sin_addr.s_addr = htonl(0x0a000002u | static_cast<uint32_t>(index) << 16);
    connect(result, reinterpret_cast<sockaddr*>(&peer), sizeof peer);
    return result;
}

} // namespace zel::test
