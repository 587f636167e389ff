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

// ok when every command succeeds; otherwise what the first failing one printed.
Finding all_succeed(std::initializer_list<const char*> commands);

} // namespace zel::doctor
