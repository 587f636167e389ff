// A service that answers any UDP query with the name of the interface it came in through.
#pragma once

#include "network_plan.hpp"

struct netif;

// On the external and the ordinary port, both families. lwIP's thread only.
void start_query_service(const Interface& interface, const netif& in_stack);
