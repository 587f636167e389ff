#include "Command.hpp"

#include "Text.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace zel::doctor {
namespace {

bool speaks_of_rights(const std::string& output) {
    return output.find(std::strerror(EPERM)) != std::string::npos ||
           output.find(std::strerror(EACCES)) != std::string::npos;
}

} // namespace

const char* const rights_remedy =
    "run as root, or with the ambient capabilities sys_nice, net_admin, sys_admin and dac_override "
    "(setpriv, or a systemd unit's AmbientCapabilities=); those of a file (setcap) do not reach "
    "the commands that the library runs";

bool is_refusal(int error) {
    return error == EPERM || error == EACCES;
}

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
            return {Status::missing, format("\"%s\" fails: %s", command, one_line(output).c_str()),
                    speaks_of_rights(output) ? rights_remedy : ""};
        }
    }
    return {Status::ok, "works"};
}

} // namespace zel::doctor
