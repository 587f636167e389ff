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
    std::string remedy = {}; // when the reason asks for another than the check's
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
    // Checks before it without which it is not tried: it would only repeat what they found.
    std::array<const char*, 2> needs = {};
};

struct Result {
    const char* what;
    Finding finding;
    const char* consequence;
    std::string remedy; // none for what was not tried: the needed check has it
};

std::span<const Check> real_time_checks();
std::span<const Check> tool_checks();
std::span<const Check> run_directory_checks();
std::span<const Check> network_checks(); // only ever run by in_private_namespaces()
std::vector<Result> check_priorities(const Request& request);

// The highest Linux priority that the table leads to.
std::int64_t highest_wanted(const Request& request);

// The finding of one check; `before` are the results of those before it.
Finding examine(const Check& check, const Request& request, std::span<const Result> before);
Finding not_tried_without(const char* what);
Result result_of(const Check& check, Finding finding);

void run_checks(std::span<const Check> checks, const Request& request,
                std::vector<Result>& results);

// Runs the checks in a child process with network and mount namespaces of its own, so that what
// they create goes away with the child.
void run_in_private_namespaces(std::span<const Check> checks, const Request& request,
                               std::vector<Result>& results);

} // namespace zel::doctor
