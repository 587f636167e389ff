// The networking half of the example.
#pragma once

#include "checks.hpp"

#include <cstddef>

// Starts the IP stack, its servers and the routing instances; ends early when a stop is requested.
// Main thread, after zel_kernel_init.
void start_network(Checks& checks);

// Starts the threads of the clients of a network that is complete; they wait to be let begin, so
// that they are still there to be looked at. Main thread.
void start_network_clients(std::size_t bytes_to_fetch);
void let_network_clients_begin();

// Whether the clients have done all they had to do.
bool network_finished();

// Ends clients that still run, takes the routing instances down and adds to `checks`.
void finish_network(Checks& checks);
