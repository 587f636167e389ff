#pragma once

namespace zel::network {

// Makes the receive thread leave its wait and look at the state. Never blocks; does nothing when
// there is no wake-up pipe.
void wakeup_zel_tun_packet_receive();

} // namespace zel::network
