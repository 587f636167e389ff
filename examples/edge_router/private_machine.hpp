// A mount and a network namespace of the program's own.
#pragma once

#include <optional>
#include <string>

// What this machine lacks for the example, in one sentence; nothing when all is there.
std::optional<std::string> what_is_missing();

// Moves the calling process into namespaces of its own: with a /run of its own, where no named
// network namespace exists, and with `external` among the ip tool's routing table names. All of it
// goes away with the last process inside. Call it before any thread is made, and before
// zel_kernel_init, which deletes every named network namespace it can see. Returns what failed.
std::optional<std::string> enter_private_machine();

// How many named network namespaces there are.
int named_namespaces();
