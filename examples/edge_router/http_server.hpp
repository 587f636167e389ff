// An HTTP server in an application thread, one for each routing instance.
#pragma once

#include "network_plan.hpp"

// Serves http://<stack's address>/bytes/<count>, IPv4 and IPv6, on the instance's inside interface.
// Main thread, after start_ip_stack.
void start_http_server(const Instance& instance);
