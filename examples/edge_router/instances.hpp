// The routing instances on Linux's side: namespaces, TUN devices, addresses, routes, marking.
#pragma once

#include "checks.hpp"
#include "network_plan.hpp"

// Makes an instance with its devices. The commands' output is their only report: whatever they
// print is shown, and fails the check. Blocks while some thirty commands run.
void create_instance(const Instance& instance, Checks& checks);

// UDP queries to plan::external_port are external traffic, in every instance present and future.
void mark_external_traffic(Checks& checks);

// Takes the instance down again, its devices first.
void destroy_instance(const Instance& instance);
