// The networking half of the example.
#pragma once

#include "checks.hpp"

#include <cstddef>

// Starts the IP stack, its servers and the routing instances; ends early when a stop is requested.
// Main thread, after zel_kernel_init.
void start_network(Checks& checks);

// Starts the clients of a network that is complete. Main thread.
void start_network_clients(std::size_t bytes_to_fetch);

// Whether the clients have done all they had to do.
bool network_finished();

// Ends clients that still run, takes the routing instances down and adds to `checks`.
void finish_network(Checks& checks);
