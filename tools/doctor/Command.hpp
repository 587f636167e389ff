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

// Rights that a command lacks: what EPERM and EACCES ask for.
extern const char* const rights_remedy;
bool is_refusal(int error);

// ok when every command succeeds; otherwise what the first failing one printed, with rights_remedy
// where that speaks of rights.
Finding all_succeed(std::initializer_list<const char*> commands);

} // namespace zel::doctor
