#pragma once

#include <zelkernel/statistics.h>

#include <atomic>
#include <cstddef>
#include <utility>

namespace zel::network {

// Owns an open TUN descriptor. It is shared by the maps of the state, the receive thread's snapshot
// and the sends under way; the last of them to let go closes it. So nobody reads or writes a
// number that has been reused, and nobody waits for anybody.
class TunDescriptor {
public:
    TunDescriptor();
    ~TunDescriptor();
    TunDescriptor(const TunDescriptor&) = delete;
    TunDescriptor& operator=(const TunDescriptor&) = delete;

    bool open();
    int number() const { return fd_; }

    // Gives the device its place among the published counters, until the descriptor is closed.
    void count_as(int family, int index);
    zel_statistics_device& counters() const { return *counters_; }

    // From here on the device ends with its last open descriptor. The deletion command alone would
    // not do: Linux refuses to delete a device that a sender of this process, or a child between
    // fork and exec, still has open.
    void end_device_with_descriptor() const;

    // Leaves the descriptor open for the process's life. Under the module's lock.
    void keep_open() { keep_open_ = true; }

private:
    friend class SharedTunDescriptor;

    std::atomic<int> references_{1};
    int fd_ = -1;
    bool keep_open_ = false;
    zel_statistics_device* counters_;
};

// A counted reference. Every packet sent takes one and gives it back; std::shared_ptr would ask
// each time whether the process has other threads, and count in a place of its own, which costs a
// send one per cent.
class SharedTunDescriptor {
public:
    SharedTunDescriptor(std::nullptr_t = nullptr) {}
    static SharedTunDescriptor make() { return SharedTunDescriptor{new TunDescriptor}; }

    SharedTunDescriptor(const SharedTunDescriptor& other) : descriptor_(other.descriptor_) {
        if (descriptor_ != nullptr)
            descriptor_->references_.fetch_add(1, std::memory_order_relaxed);
    }
    SharedTunDescriptor(SharedTunDescriptor&& other) noexcept
        : descriptor_(std::exchange(other.descriptor_, nullptr)) {}
    SharedTunDescriptor& operator=(SharedTunDescriptor other) noexcept {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    ~SharedTunDescriptor() {
        if (descriptor_ != nullptr &&
            descriptor_->references_.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete descriptor_;
    }

    bool operator==(std::nullptr_t) const { return descriptor_ == nullptr; }
    TunDescriptor* operator->() const { return descriptor_; }

private:
    explicit SharedTunDescriptor(TunDescriptor* owned) : descriptor_(owned) {}

    TunDescriptor* descriptor_ = nullptr;
};

inline constexpr const char* tun_driver = "/dev/net/tun";

} // namespace zel::network
