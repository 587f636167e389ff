#include "PosixLock.hpp"
#include "State.hpp"
#include "Statistics.hpp"

#include <zelkernel/tun.h>

#include <unistd.h>

namespace zel::network {
namespace {

// The device's descriptor, with the packet counted while the lock is held.
SharedTunDescriptor find_device(int index, size_t length, const TunFds& tun_fds) {
    const PosixLock lock{state->fd_map_mutex};
    const auto found = tun_fds.find(index);
    if (found == tun_fds.end())
        return nullptr;
    zel_statistics_device& counters = found->second->counters();
    count(counters.sent_packets);
    count(counters.sent_bytes, static_cast<uint32_t>(length));
    return found->second;
}

// The reference keeps the descriptor open until the packet is written, whoever destroys the device
// meanwhile. A packet that Linux does not take is lost, as on any interface.
void zel_tun_packet_send(int index, const void* packet, size_t length, const TunFds& tun_fds) {
    const SharedTunDescriptor device = find_device(index, length, tun_fds);
    if (device == nullptr)
        return;
    [[maybe_unused]] const ssize_t written = write(device->number(), packet, length);
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
