// The soak's IP stack: it checks each UDP packet that Linux sends, enters the index of the
// interface that it came in through, and sends it back.
#pragma once

namespace soak {

// Starts the library's receive thread. Once.
void start_echo();

// Buffers handed to the library and not yet given back; 0 when nothing is on its way.
long buffers_out();

// The smallest and the largest MTU that the soak gives to a device.
inline constexpr int smallest_mtu = 1280;
inline constexpr int largest_mtu = 1500;

} // namespace soak
