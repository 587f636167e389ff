// What the receive thread waits for: the wake-up pipe and the registered devices. The receive
// thread's own, without a lock; it follows the state by reading State::generation and FdMap.
//
// select() is asked for few descriptors: the pipe, the busy devices, and an event set (epoll) that
// stands for all idle ones. Asking for each device with each packet would cost 256 idle devices 40
// times what a packet costs. There is an event set only from the time when there are more than
// `few` devices to ask for until the last idle one has gone.
//
// A reference is held to each device waited for: a descriptor closed meanwhile would make select()
// fail, and its number, reused, would be read from. A device leaves the event set before its
// reference goes, since the set would go on reporting what a child of the process keeps open.
#pragma once

#include "State.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/epoll.h>
#include <sys/select.h>

namespace zel::network {

// As it was when the wait ended: what happens to the device after that counts from the next pass.
struct ReadyDevice {
    TunDescriptor* descriptor = nullptr;
    int mtu = 0;
};

class ReceiveWait {
public:
    ReceiveWait();
    ReceiveWait(const ReceiveWait&) = delete;
    ReceiveWait& operator=(const ReceiveWait&) = delete;
    ~ReceiveWait();

    // Takes up new devices and lets go of those that are gone.
    void refresh() {
        const unsigned generation = state->generation.load(std::memory_order_acquire);
        if (generation != generation_) [[unlikely]]
            follow(generation);
    }

    // Blocks until there is something to do.
    void wait();

    // Of the last wait, by ascending descriptor; none that has been destroyed during it.
    std::span<const ReadyDevice> ready_devices() const {
        return {ready_devices_.data(), ready_count_};
    }
    bool is_woken() const { return is_woken_; }

    // Waits for the device no longer.
    void ignore(int fd);

private:
    // From this number of devices on idle ones move into the event set.
    static constexpr int few = 8;
    // So many passes after the last look, devices change places: from select() to the event set
    // without a packet since, and back with one in every eighth pass, when fetching its events has
    // cost about what the two moves do. One of many with a packet now and then stays where it is.
    static constexpr int passes_between_looks = 64;
    static constexpr std::uint8_t reports_of_a_busy_device = passes_between_looks / 8;

    void follow(unsigned generation);
    void take_up(int fd);
    void let_go(int fd);
    int add_events_to(fd_set& ready);
    void collect(const fd_set& ready, int highest);
    void look_for_idle_devices(const fd_set& ready);
    void move_into_event_set(int fd);
    void move_out_of_event_set(int fd);
    bool has_event_set();
    void drop_event_set();
    void move_event_set_to_the_end();
    void recompute_rx_max_fd();

    fd_set rx_fd_set_{}; // what select() is asked for
    int rx_max_fd_ = -1;
    int asked_devices_ = 0; // of rx_fd_set_

    int event_set_ = -1;
    fd_set in_event_set_{};
    int devices_in_event_set_ = 0;
    fd_set refused_{}; // by the event set
    std::array<epoll_event, FD_SETSIZE> events_;

    fd_set seen_ready_{}; // since the last look
    std::array<std::uint8_t, FD_SETSIZE> reports_{};
    int passes_to_look_ = passes_between_looks;

    std::array<TunReference, FD_SETSIZE> held_;
    std::array<ReadyDevice, FD_SETSIZE> ready_devices_{};
    std::size_t ready_count_ = 0;
    bool is_woken_ = false;
    unsigned generation_;
};

} // namespace zel::network
