#include "ReceiveWait.hpp"

#include <zelkernel/kernel.h>

#include <algorithm>
#include <bit>
#include <fcntl.h>
#include <unistd.h>

namespace zel::network {
namespace {

using Word = unsigned long;
constexpr int bits_per_word = 8 * sizeof(Word);
constexpr int words = FD_SETSIZE / bits_per_word;

Word word_of(const fd_set& set, int at) {
    return static_cast<Word>(set.fds_bits[at]);
}

// Calls `action(fd)` for each descriptor of the set's first `count` words, ascending. The action
// may change the set.
template<typename Action>
void for_each_in(const fd_set& set, int count, Action action) {
    for (int at = 0; at < count; ++at) {
        for (Word rest = word_of(set, at); rest != 0; rest &= rest - 1)
            action(at * bits_per_word + std::countr_zero(rest));
    }
}

} // namespace

// One generation behind, so that the first refresh looks.
ReceiveWait::ReceiveWait() : generation_(state->generation.load(std::memory_order_relaxed) - 1) {
    if (state->rx_wakeup_read_fd == -1)
        return;
    FD_SET(state->rx_wakeup_read_fd, &rx_fd_set_);
    recompute_rx_max_fd();
}

ReceiveWait::~ReceiveWait() {
    if (event_set_ != -1)
        close(event_set_);
}

void ReceiveWait::follow(unsigned generation) {
    generation_ = generation;
    for (int fd = 0; fd < FD_SETSIZE; ++fd) {
        const bool is_held = static_cast<bool>(held_[static_cast<size_t>(fd)]);
        if (state->fd_map.is_registered(fd) == is_held)
            continue;
        if (is_held) {
            let_go(fd);
        } else {
            take_up(fd);
        }
    }
    if (event_set_ != -1 && devices_in_event_set_ == 0 && asked_devices_ <= few)
        drop_event_set();
    recompute_rx_max_fd();
}

void ReceiveWait::drop_event_set() {
    FD_CLR(event_set_, &rx_fd_set_);
    close(event_set_);
    event_set_ = -1;
}

void ReceiveWait::take_up(int fd) {
    TunReference& held = held_[static_cast<size_t>(fd)];
    held = state->fd_map.acquire(fd);
    if (!held)
        return;
    FD_SET(fd, &rx_fd_set_);
    ++asked_devices_;
}

void ReceiveWait::let_go(int fd) {
    ignore(fd);
    FD_CLR(fd, &refused_);
    held_[static_cast<size_t>(fd)].reset();
}

void ReceiveWait::ignore(int fd) {
    if (FD_ISSET(fd, &in_event_set_))
        move_out_of_event_set(fd);
    if (FD_ISSET(fd, &rx_fd_set_))
        --asked_devices_;
    FD_CLR(fd, &rx_fd_set_);
}

void ReceiveWait::wait() {
    fd_set ready = rx_fd_set_;
    if (select(rx_max_fd_ + 1, &ready, nullptr, nullptr, nullptr) < 0)
        zel_fatal("rx packet select() failure", module_file, 744);
    is_woken_ = FD_ISSET(state->rx_wakeup_read_fd, &ready);
    FD_CLR(state->rx_wakeup_read_fd, &ready);
    int highest = rx_max_fd_;
    if (event_set_ != -1 && FD_ISSET(event_set_, &ready))
        highest = std::max(highest, add_events_to(ready));
    collect(ready, highest);
    if (asked_devices_ > few || event_set_ != -1)
        look_for_idle_devices(ready);
}

// Gives the highest of the descriptors, -1 if there was none.
int ReceiveWait::add_events_to(fd_set& ready) {
    FD_CLR(event_set_, &ready);
    const int count = epoll_wait(event_set_, events_.data(), static_cast<int>(events_.size()), 0);
    int highest = -1;
    for (int at = 0; at < count; ++at) {
        const int fd = events_[static_cast<size_t>(at)].data.fd;
        FD_SET(fd, &ready);
        highest = std::max(highest, fd);
        if (++reports_[static_cast<size_t>(fd)] == reports_of_a_busy_device)
            move_out_of_event_set(fd);
    }
    return highest;
}

// Nothing is ready above `highest`: a device alone would pay for looking there with each packet.
void ReceiveWait::collect(const fd_set& ready, int highest) {
    std::size_t count = 0;
    for_each_in(ready, highest / bits_per_word + 1, [&](int fd) {
        const TunReference& held = held_[static_cast<size_t>(fd)];
        if (held && state->fd_map.is_registered(fd))
            ready_devices_[count++] = {held.operator->(), held->mtu()};
    });
    ready_count_ = count;
}

void ReceiveWait::look_for_idle_devices(const fd_set& ready) {
    for (int at = 0; at < words; ++at)
        seen_ready_.fds_bits[at] |= ready.fds_bits[at];
    if (--passes_to_look_ > 0)
        return;
    passes_to_look_ = passes_between_looks;
    if (asked_devices_ > few && has_event_set()) {
        const fd_set asked = rx_fd_set_;
        for_each_in(asked, words, [this](int fd) {
            const bool is_device = static_cast<bool>(held_[static_cast<size_t>(fd)]);
            if (is_device && !FD_ISSET(fd, &seen_ready_) && !FD_ISSET(fd, &refused_))
                move_into_event_set(fd);
        });
        recompute_rx_max_fd();
    }
    if (event_set_ != -1 && event_set_ != rx_max_fd_)
        move_event_set_to_the_end();
    FD_ZERO(&seen_ready_);
    reports_.fill(0);
}

void ReceiveWait::move_into_event_set(int fd) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (epoll_ctl(event_set_, EPOLL_CTL_ADD, fd, &event) != 0) {
        FD_SET(fd, &refused_);
        return;
    }
    FD_SET(fd, &in_event_set_);
    ++devices_in_event_set_;
    FD_CLR(fd, &rx_fd_set_);
    --asked_devices_;
}

void ReceiveWait::move_out_of_event_set(int fd) {
    epoll_ctl(event_set_, EPOLL_CTL_DEL, fd, nullptr);
    FD_CLR(fd, &in_event_set_);
    --devices_in_event_set_;
    FD_SET(fd, &rx_fd_set_);
    ++asked_devices_;
    rx_max_fd_ = std::max(rx_max_fd_, fd);
}

// False when there is none to be had: select() is asked for every device then.
bool ReceiveWait::has_event_set() {
    if (event_set_ != -1)
        return true;
    const int made = epoll_create1(EPOLL_CLOEXEC);
    if (made == -1)
        return false;
    if (made >= FD_SETSIZE) {
        close(made);
        return false;
    }
    event_set_ = made;
    FD_SET(event_set_, &rx_fd_set_);
    return true;
}

// Above the devices that select() is asked for: once it has found one of them ready, it prepares no
// waiting for what comes after, which saves a busy device a twentieth of a packet's cost.
void ReceiveWait::move_event_set_to_the_end() {
    const int higher = fcntl(event_set_, F_DUPFD_CLOEXEC, rx_max_fd_ + 1);
    if (higher == -1)
        return;
    if (higher >= FD_SETSIZE) {
        close(higher);
        return;
    }
    FD_CLR(event_set_, &rx_fd_set_);
    close(event_set_);
    event_set_ = higher;
    FD_SET(event_set_, &rx_fd_set_);
    rx_max_fd_ = event_set_;
}

void ReceiveWait::recompute_rx_max_fd() {
    int at = words - 1;
    while (word_of(rx_fd_set_, at) == 0)
        --at;
    rx_max_fd_ = (at + 1) * bits_per_word - 1 - std::countl_zero(word_of(rx_fd_set_, at));
}

} // namespace zel::network
