// The Linux priorities that a table of kernel priorities leads to.
#include "Check.hpp"

#include "Text.hpp"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sched.h>

namespace zel::doctor {
namespace {

using Words = std::array<std::int32_t, 9>;
enum Word { lock, interrupt, kcall, reserved, timer, app_base, app_min, app_max, linux_base };

// What zel_kernel_init makes of the table: 64 bits, so that nonsense does not wrap into the range.
class Mapping {
public:
    Mapping(const Words& words, std::int64_t caller)
        : words_(words), base_(words[linux_base] + caller) {}

    // Linux priority of a word: the application's bounds go by the shift, the others by the base.
    std::int64_t of(Word word) const {
        const bool application = word == app_min || word == app_max;
        return words_[word] + base_ - (application ? words_[app_base] : 0);
    }

private:
    const Words& words_;
    std::int64_t base_;
};

struct Level {
    const char* what;
    Word word;
    const char* consequence;
};

constexpr Level levels[] = {
    {"interrupt lock ceiling", lock, "interrupts_disabled_mutex cannot be locked (EINVAL)"},
    {"interrupt thread", interrupt, "the first LinuxInterruptMgr stops the process"},
    {"kernel-call thread", kcall, "zel_kernel_init stops the process"},
    {"timer priority", timer, "zel_timer_priority gives a priority that Linux refuses"},
    {"highest application priority", app_max, "threads with that priority are refused (EINVAL)"},
    {"lowest application priority", app_min, "threads with that priority are refused (EINVAL)"},
};

// `upper` has to be above `lower`, or at least as high.
struct Order {
    Word upper, lower;
    bool equal_allowed;
    const char* broken;
};

constexpr Order orders[] = {
    {lock, interrupt, true, "the interrupt lock's ceiling is below the interrupt thread"},
    {lock, kcall, true, "the interrupt lock's ceiling is below the kernel-call thread"},
    {lock, app_max, true, "the interrupt lock's ceiling is below the application"},
    {interrupt, kcall, false, "the interrupt thread is not above the kernel-call thread"},
    {kcall, app_max, false, "the kernel-call thread is not above the application"},
    {app_max, app_min, true, "the application's highest priority is below its lowest"},
};

Finding order_of(const Mapping& linux_priority) {
    std::string broken;
    for (const Order& order : orders) {
        const auto upper = linux_priority.of(order.upper), lower = linux_priority.of(order.lower);
        if (upper < lower || (upper == lower && !order.equal_allowed))
            broken += (broken.empty() ? "" : "; ") + std::string(order.broken);
    }
    if (broken.empty())
        return {Status::ok, "interrupt > kernel-call > application"};
    return {Status::missing, broken};
}

Status in_range(std::int64_t priority) {
    const bool good = priority >= sched_get_priority_min(SCHED_FIFO) &&
                      priority <= sched_get_priority_max(SCHED_FIFO);
    return good ? Status::ok : Status::missing;
}

Finding level_of(const Level& level, const Words& words, const Mapping& linux_priority) {
    const std::int64_t result = linux_priority.of(level.word);
    return {in_range(result), format("%ld becomes Linux priority %lld", long{words[level.word]},
                                     static_cast<long long>(result))};
}

Finding caller_of(const Words& words, std::int64_t caller) {
    const std::int64_t application = std::int64_t{words[app_base]} - words[linux_base];
    return {in_range(caller),
            format("Linux priority %lld, application priority %lld", static_cast<long long>(caller),
                   static_cast<long long>(application))};
}

// As zel_kernel_init rebases the table.
std::int64_t effective_caller(std::int32_t caller) {
    const char* debugger = std::getenv("DEBUGGER");
    const bool debugging = debugger != nullptr && std::strcmp(debugger, "TRUE") == 0;
    return debugging ? 1 : std::max(caller, 1);
}

} // namespace

std::vector<Result> check_priorities(const Request& request) {
    if (!request.priorities)
        return {};
    const Words& words = *request.priorities;
    const std::int64_t caller = effective_caller(request.caller_priority);
    const Mapping mapping(words, caller);

    std::vector<Result> results;
    results.push_back({"caller of zel_kernel_init", caller_of(words, caller),
                       "it cannot have this priority", "give it one from 1 to 99"});
    for (const Level& level : levels) {
        results.push_back({level.what, level_of(level, words, mapping), level.consequence,
                           "change the word, linux_base_priority or the caller's own priority so "
                           "that the result is 1 to 99"});
    }
    results.push_back({"order of priorities", order_of(mapping),
                       "interrupts and kernel calls wait for application threads; a thread above "
                       "the ceiling cannot take the interrupt lock (EINVAL)",
                       "lock >= interrupt > kernel-call > application; raise the words of the "
                       "table or lower app_max_priority"});
    return results;
}

std::int64_t highest_wanted(const Request& request) {
    if (!request.priorities)
        return sched_get_priority_min(SCHED_FIFO);
    const Mapping mapping(*request.priorities, effective_caller(request.caller_priority));
    std::int64_t highest = 0;
    for (const Level& level : levels)
        highest = std::max(highest, mapping.of(level.word));
    return highest;
}

} // namespace zel::doctor
