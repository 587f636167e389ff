#include "ReceiveWait.hpp"

#include <zelkernel/kernel.h>

#include <algorithm>
#include <bit>
#include <unistd.h>

namespace zel::network {
namespace {

using Word = unsigned long;
constexpr int bits_per_word = 8 * sizeof(Word);
constexpr int words = FD_SETSIZE / bits_per_word;

Word word_of(const fd_set& set, int at) {
    return static_cast<Word>(set.fds_bits[at]);
}

// Calls `action(fd)` for each descriptor of the set, ascending. The action may change the set.
template<typename Action>
void for_each_in(const fd_set& set, Action action) {
    for (int at = 0; at < words; ++at) {
        for (Word rest = word_of(set, at); rest != 0; rest &= rest - 1)
            action(at * bits_per_word + std::countr_zero(rest));
    }
}

} // namespace

// One generation behind, so that the first refresh looks.
ReceiveWait::ReceiveWait() : generation_(state->generation.load(std::memory_order_relaxed) - 1) {
    ready_devices_.reserve(FD_SETSIZE);
    if (state->rx_wakeup_read_fd == -1)
        return;
    FD_SET(state->rx_wakeup_read_fd, &rx_fd_set_);
    recompute_rx_max_fd();
}

ReceiveWait::~ReceiveWait() {
    if (event_set_ != -1)
        close(event_set_);
}

void ReceiveWait::refresh() {
    const unsigned generation = state->generation.load(std::memory_order_acquire);
    if (generation == generation_)
        return;
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
    recompute_rx_max_fd();
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
    if (event_set_ != -1 && FD_ISSET(event_set_, &ready))
        add_events_to(ready);
    collect(ready);
    if (asked_devices_ > few || event_set_ != -1)
        look_for_idle_devices();
}

void ReceiveWait::add_events_to(fd_set& ready) {
    FD_CLR(event_set_, &ready);
    const int count = epoll_wait(event_set_, events_.data(), static_cast<int>(events_.size()), 0);
    for (int at = 0; at < count; ++at) {
        const int fd = events_[static_cast<size_t>(at)].data.fd;
        FD_SET(fd, &ready);
        if (++reports_[static_cast<size_t>(fd)] == reports_of_a_busy_device)
            move_out_of_event_set(fd);
    }
}

void ReceiveWait::collect(const fd_set& ready) {
    ready_devices_.clear();
    for_each_in(ready, [this](int fd) {
        FD_SET(fd, &seen_ready_);
        TunReference& held = held_[static_cast<size_t>(fd)];
        if (held && state->fd_map.is_registered(fd))
            ready_devices_.push_back({held.operator->(), held->mtu()});
    });
}

void ReceiveWait::look_for_idle_devices() {
    if (--passes_to_look_ > 0)
        return;
    passes_to_look_ = passes_between_looks;
    if (asked_devices_ > few && has_event_set()) {
        const fd_set asked = rx_fd_set_;
        for_each_in(asked, [this](int fd) {
            const bool is_device = static_cast<bool>(held_[static_cast<size_t>(fd)]);
            if (is_device && !FD_ISSET(fd, &seen_ready_) && !FD_ISSET(fd, &refused_))
                move_into_event_set(fd);
        });
        recompute_rx_max_fd();
    }
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
    FD_CLR(fd, &rx_fd_set_);
    --asked_devices_;
}

void ReceiveWait::move_out_of_event_set(int fd) {
    epoll_ctl(event_set_, EPOLL_CTL_DEL, fd, nullptr);
    FD_CLR(fd, &in_event_set_);
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

void ReceiveWait::recompute_rx_max_fd() {
    int at = words - 1;
    while (word_of(rx_fd_set_, at) == 0)
        --at;
    rx_max_fd_ = (at + 1) * bits_per_word - 1 - std::countl_zero(word_of(rx_fd_set_, at));
}

} // namespace zel::network
