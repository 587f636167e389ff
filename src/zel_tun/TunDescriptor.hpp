#pragma once

#include <zelkernel/statistics.h>

#include <atomic>
#include <memory>

namespace zel::network {

// Whether a descriptor has been closed; outlives it, for the deletion that waits for that.
class Closing {
public:
    // True when the descriptor is closed. Otherwise whoever closes it wakes the receive thread.
    bool done_else_await();

    // By the closer, afterwards: true when the closing is awaited.
    bool mark_done();

private:
    enum class State : unsigned char { open, awaited, done };
    std::atomic<State> state_{State::open};
};

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

    const std::shared_ptr<Closing>& closing() const { return closing_; }

    // Leaves the descriptor open for the process's life. Under the module's lock.
    void keep_open() { keep_open_ = true; }

private:
    int fd_ = -1;
    bool keep_open_ = false;
    zel_statistics_device* counters_;
    std::shared_ptr<Closing> closing_ = std::make_shared<Closing>();
};

using SharedTunDescriptor = std::shared_ptr<TunDescriptor>;

inline constexpr const char* tun_driver = "/dev/net/tun";

} // namespace zel::network
