#pragma once

namespace zel::network {

// On the receive thread: runs the queued deletions in their order.
void run_pending_tun_deletes();

} // namespace zel::network
