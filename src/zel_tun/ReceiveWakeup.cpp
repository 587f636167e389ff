#include "ReceiveWakeup.hpp"

#include "State.hpp"

#include <zelkernel/kernel.h>

#include <cerrno>
#include <cstdint>
#include <unistd.h>

namespace zel::network {

void wakeup_zel_tun_packet_receive() {
    if (state->rx_wakeup_write_fd == -1)
        return;
    constexpr std::uint32_t token = 0;
    const ssize_t written = write(state->rx_wakeup_write_fd, &token, sizeof token);
    // A full pipe holds a token already. It fills up when no receive thread was ever started.
    const bool is_full = written == -1 && errno == EAGAIN;
    if (written != sizeof token && !is_full)
        zel_fatal("wakeup_zel_tun_packet_receive() write failed", module_file, 284);
}

} // namespace zel::network
