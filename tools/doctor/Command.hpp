// Commands run as the library runs them: by the shell.
#pragma once

#include "Check.hpp"

#include <initializer_list>
#include <string>

namespace zel::doctor {

struct CommandResult {
    bool succeeded;
    std::string output; // both streams
};

CommandResult run_command(const char* command);

// Of the kind that keeps its rules in nf_tables there is none.
bool is_legacy_iptables(const char* command);

struct Capability {
    const char* name;
    int number;
};
constexpr Capability net_admin{"net_admin", 12}, net_raw{"net_raw", 13}, sys_admin{"sys_admin", 21},
    sys_nice{"sys_nice", 23};

// Empty when commands have them all.
std::string lacking_in_commands(std::initializer_list<Capability> needed);

constexpr const char* remedy_when_confined =
    "the capabilities are there: look at what else confines the program (a systemd unit's "
    "RestrictRealtime=, RestrictNamespaces= or SystemCallFilter=, a control group, a container's "
    "seccomp profile, a user namespace, a security module)";

// What EPERM and EACCES ask for: names those of the needed capabilities that commands lack, which
// need not be those that this program lacks.
std::string rights_remedy(std::initializer_list<Capability> needed = {net_admin, sys_admin});
bool is_refusal(int error);

// ok when every command succeeds; otherwise what the first failing one printed, with rights_remedy
// where that speaks of rights.
Finding all_succeed(std::initializer_list<const char*> commands);

} // namespace zel::doctor
