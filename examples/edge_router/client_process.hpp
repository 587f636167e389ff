// Ordinary programs of the system, run inside a routing instance.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <vector>

// Runs `command` in the instance's namespace, as an ordinary process (no real-time priority, any
// processor), and hands over what it prints on standard output. Returns its exit status; -1 when it
// could not be run, was ended by a signal, or `stop_clients` has been called. One at a time in each
// of the two client threads, `slot` 0 and 1.
int run_in_instance(const char* instance, int slot, const std::vector<std::string>& command,
                    const std::function<void(std::span<const unsigned char>)>& output);

// Ends the running clients and lets no other start. Any thread.
void stop_clients();
bool clients_stopped();
