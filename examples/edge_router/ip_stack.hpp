// lwIP, between its own interfaces and the library's TUN devices.
#pragma once

#include "network_plan.hpp"

// Starts lwIP with an interface for each one of the plan, and the library's receive thread. Once,
// after zel_kernel_init, main thread. Packets flow as soon as the devices exist.
void start_ip_stack();

// The name by which lwIP knows the interface: the device that a socket is bound to.
const char* name_in_stack(const Interface& interface);
