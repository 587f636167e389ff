#pragma once

namespace zel::network {

// On the receive thread, which must have let go of destroyed devices: runs the queued deletions in
// their order. Linux refuses to delete a device that is still open; at the first one that some
// sender still holds this returns, and that sender's close wakes the receive thread again.
void run_pending_tun_deletes();

} // namespace zel::network
