// The peers of the IP stack: ping, curl and UDP queries inside each routing instance.
#pragma once

#include "checks.hpp"

#include <cstddef>

// Starts a client thread for each instance. Once let begin, they work at the same time. Main
// thread.
void start_clients(std::size_t bytes_to_fetch);
void let_clients_begin();

// Whether all of them have finished. Once they have, their checks can be taken.
bool clients_finished();
void take_client_checks(Checks& checks);
