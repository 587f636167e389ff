#pragma once

#include "State.hpp"

#include <vector>

namespace zel::network {

struct WatchedDevice {
    int fd;
    int index;
    int mtu;
    SharedTunDescriptor descriptor;
};

// The receive thread's own copy of what it watches. Its references keep each descriptor open from
// the copy through select() to read(): a descriptor closed in between would make select() fail, and
// its number, reused, would be read from.
//
// The room for all descriptors that a set can hold is had at construction; refreshing allocates
// nothing.
class ReceiveSnapshot {
public:
    ReceiveSnapshot();

    // Copies the state if it has changed since the last time, letting go of devices that are gone;
    // tells whether it had.
    bool refresh();

    // Excludes a descriptor from the set until the state changes.
    void ignore(int fd) { FD_CLR(fd, &set_); }

    const std::vector<WatchedDevice>& devices() const { return devices_; } // by descriptor
    const fd_set& set() const { return set_; }
    int max_fd() const { return max_fd_; }

private:
    void copy_state();

    std::vector<WatchedDevice> devices_;
    std::vector<WatchedDevice> previous_devices_;
    fd_set set_{};
    int max_fd_ = -1;
    unsigned generation_;
};

} // namespace zel::network
