// The soak's load on instances, devices, settings and packets.
#pragma once

namespace soak {

// Makes the two instances that stay, which takes some seconds, and starts the load. Main thread,
// after start_echo.
void start_network_load();

// Whether all threads of the load have seen stopping().
bool network_load_ended();

// Then: takes the two instances down.
void finish_network_load();

} // namespace soak
