// What the doctor looks at: tables of checks, and what each of them found.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace zel::doctor {

// note: works, but the user should know. unknown: could not be tried, for a reason given.
enum class Status : char { ok = 'o', note = 'n', missing = 'm', unknown = 'u' };

struct Finding {
    Status status;
    std::string found;
};

// What the user asked about.
struct Request {
    std::optional<std::array<std::int32_t, 9>> priorities; // the words given to zel_kernel_init
    std::int32_t caller_priority = 1; // the SCHED_FIFO priority zel_kernel_init's caller will have
};

struct Check {
    const char* what;
    Finding (*probe)(const Request&);
    const char* consequence; // of its not being there
    const char* remedy;
};

struct Result {
    const char* what;
    Finding finding;
    const char* consequence;
    const char* remedy;
};

std::span<const Check> real_time_checks();
std::span<const Check> tool_checks();
std::span<const Check> network_checks(); // only ever run by in_private_namespaces()
std::vector<Result> check_priorities(const Request& request);

// The highest Linux priority that the table leads to.
std::int64_t highest_wanted(const Request& request);

// Runs the checks in a child process with network and mount namespaces of its own, so that what
// they create goes away with the child.
std::vector<Result> in_private_namespaces(std::span<const Check> checks, const Request& request);

} // namespace zel::doctor
