#include "Probes.hpp"
#include "State.hpp"

#include <zelkernel/tun.h>

#include <cstdint>
#include <unistd.h>

namespace zel::network {
namespace {

// The reference keeps the descriptor open until the packet is written, whoever destroys the device
// meanwhile. A packet that Linux does not take is lost, as on any interface.
void zel_tun_packet_send(int index, const void* packet, size_t length, const TunFds& tun_fds) {
    TunReference device = tun_fds.acquire(index);
    if (!device)
        return;
    device->count_sent(static_cast<std::uint32_t>(length));
    [[maybe_unused]] const ssize_t written = write(device->number(), packet, length);
    ZEL_PROBE(packet_sent, device->ip_version(), index, length);
    state->fd_map.leave(device);
}

} // namespace
} // namespace zel::network

using namespace zel::network;

void zel_tun_ipv4_packet_send(int index, const void* packet, size_t length) {
    zel_tun_packet_send(index, packet, length, state->tun4_fds);
}

void zel_tun_ipv6_packet_send(int index, const void* packet, size_t length) {
    zel_tun_packet_send(index, packet, length, state->tun6_fds);
}
