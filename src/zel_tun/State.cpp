#include "State.hpp"

#include <zelkernel/kernel.h>
#include <zelkernel/locks.h>
#include <zelkernel/tun.h>

#include <cstdio>
#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

static_assert(AF_INET == 2 && AF_INET6 == 10);

namespace zel::network {

NeverDestroyed<State> state;

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
    if (pipe(ends) != 0 || ends[0] >= FD_SETSIZE)
        zel_fatal("Failed to create rx packet wakeup pipe", module_file, 872);
    for (const int end : ends)
        fcntl(end, F_SETFD, FD_CLOEXEC);
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    state->rx_wakeup_read_fd = ends[0];
    state->rx_wakeup_write_fd = ends[1];
}

} // namespace
} // namespace zel::network

using namespace zel::network;

void zel_tun_init() {
    if (__wrap_pthread_mutex_init(&state->fd_map_mutex, nullptr) != 0)
        zel_fatal("Failed to initialize FD map mutex", module_file, 848);
    if (!has_tun_driver()) {
        std::printf("No IP stack synchronization.\r\n");
        state->rx_wakeup_read_fd = state->rx_wakeup_write_fd = -1;
        return;
    }
    make_wakeup_pipe();
}
