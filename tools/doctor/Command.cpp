#include "Command.hpp"

#include "Text.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace zel::doctor {

CommandResult run_command(const char* command) {
    std::FILE* stream = popen((std::string("{ ") + command + "; } 2>&1").c_str(), "re");
    if (stream == nullptr)
        return {false, format("the shell cannot be started: %s", std::strerror(errno))};
    std::string output;
    char part[256];
    while (std::fgets(part, sizeof part, stream) != nullptr)
        output += part;
    return {pclose(stream) == 0, output};
}

Finding all_succeed(std::initializer_list<const char*> commands) {
    for (const char* command : commands) {
        const auto [succeeded, output] = run_command(command);
        if (!succeeded) {
            return {Status::missing,
                    format("\"%s\" fails: %s", command, first_line(output).c_str())};
        }
    }
    return {Status::ok, "works"};
}

} // namespace zel::doctor
