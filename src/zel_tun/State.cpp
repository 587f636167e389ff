#include "State.hpp"

#include "PosixLock.hpp"

#include <zelkernel/kernel.h>
#include <zelkernel/locks.h>
#include <zelkernel/tun.h>

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

static_assert(AF_INET == 2 && AF_INET6 == 10);

namespace zel::network {

NeverDestroyed<State> state;

TunFds& State::tun_fds(int family) {
    return family == AF_INET ? tun4_fds : tun6_fds;
}

void State::changed() {
    generation.fetch_add(1, std::memory_order_release);
}

void State::watch(int fd) {
    FD_SET(fd, &rx_fd_set);
    rx_max_fd = std::max(rx_max_fd, fd);
    changed();
}

void State::unwatch(int fd) {
    FD_CLR(fd, &rx_fd_set);
    if (fd == rx_max_fd)
        recompute_rx_max_fd();
    changed();
}

void State::recompute_rx_max_fd() {
    rx_max_fd = rx_wakeup_read_fd;
    if (!fd_map.empty())
        rx_max_fd = std::max(rx_max_fd, fd_map.rbegin()->first);
}

namespace {

bool has_tun_driver() {
    const int fd = open(tun_driver, O_RDWR | O_CLOEXEC);
    if (fd == -1)
        return false;
    close(fd);
    return true;
}

// The receive thread reads this pipe only when select() has reported it. Writers never wait: a
// full pipe wakes the thread as well as one token does.
void make_wakeup_pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0 || ends[0] >= FD_SETSIZE)
        zel_fatal("Failed to create rx packet wakeup pipe", module_file, 872);
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    state->rx_wakeup_read_fd = ends[0];
    state->rx_wakeup_write_fd = ends[1];
    state->watch(ends[0]);
}

} // namespace
} // namespace zel::network

using namespace zel::network;

void zel_tun_init() {
    if (__wrap_pthread_mutex_init(&state->fd_map_mutex, nullptr) != 0)
        zel_fatal("Failed to initialize FD map mutex", module_file, 848);
    FD_ZERO(&state->rx_fd_set);
    state->rx_max_fd = 0;
    if (!has_tun_driver()) {
        std::printf("No IP stack synchronization.\r\n");
        state->rx_wakeup_read_fd = -1;
        return;
    }
    make_wakeup_pipe();
}
