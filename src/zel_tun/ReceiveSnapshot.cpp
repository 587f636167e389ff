#include "ReceiveSnapshot.hpp"

#include "PosixLock.hpp"

namespace zel::network {

// One generation behind, so that the first refresh copies.
ReceiveSnapshot::ReceiveSnapshot()
    : generation_(state->generation.load(std::memory_order_relaxed) - 1) {
    devices_.reserve(FD_SETSIZE);
    previous_devices_.reserve(FD_SETSIZE);
}

bool ReceiveSnapshot::refresh() {
    if (generation_ == state->generation.load(std::memory_order_acquire))
        return false;
    devices_.swap(previous_devices_);
    copy_state();
    // May close descriptors, hence without the lock and after the new references are taken.
    previous_devices_.clear();
    return true;
}

void ReceiveSnapshot::copy_state() {
    const PosixLock lock{state->fd_map_mutex};
    generation_ = state->generation.load(std::memory_order_relaxed);
    set_ = state->rx_fd_set;
    max_fd_ = state->rx_max_fd;
    for (const auto& [fd, info] : state->fd_map)
        devices_.push_back({fd, info.index, info.mtu, info.descriptor});
}

} // namespace zel::network
