#include "Command.hpp"

#include "Text.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zel::doctor {
namespace {

bool speaks_of_rights(const std::string& output) {
    return output.find(std::strerror(EPERM)) != std::string::npos ||
           output.find(std::strerror(EACCES)) != std::string::npos;
}

} // namespace

bool is_legacy_iptables(const char* command) {
    const auto [succeeded, output] = run_command((std::string(command) + " -V").c_str());
    return succeeded && output.find("nf_tables") == std::string::npos;
}

std::string lacking_in_commands(std::initializer_list<Capability> needed) {
    const std::string held = run_command("grep CapEff: /proc/self/status").output;
    const std::uint64_t mask =
        std::strtoull(held.c_str() + std::min(held.size(), sizeof "CapEff:"), nullptr, 16);
    std::string lacking;
    for (const Capability& each : needed) {
        if ((mask >> each.number & 1) == 0)
            lacking += (lacking.empty() ? "" : ", ") + std::string(each.name);
    }
    return lacking;
}

std::string rights_remedy(std::initializer_list<Capability> needed) {
    const std::string lacking = lacking_in_commands(needed);
    if (lacking.empty())
        return remedy_when_confined;
    return "give the commands that the library runs the capabilities that they lack: " + lacking +
           " (a user's as ambient ones, by setpriv or a systemd unit's AmbientCapabilities=; "
           "root's in a container by --cap-add; those of a file, by setcap, do not reach commands; "
           "see running.md in share/doc/zelkernel)";
}

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
                    speaks_of_rights(output) ? rights_remedy() : ""};
        }
    }
    return {Status::ok, "works"};
}

} // namespace zel::doctor
