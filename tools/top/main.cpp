// zelkernel-top: a terminal view of a running application.
#include "../Output.hpp"
#include "Json.hpp"
#include "StatisticsFile.hpp"
#include "View.hpp"

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>

namespace {

constexpr const char* tool = "zelkernel-top";
constexpr const char* usage = "usage: zelkernel-top [--delay SECONDS] [--count N] [--json] [PID]\n"
                              "Shows what the kernel of an application does that was started with "
                              "ZELKERNEL_STATS=1.\n"
                              "  --delay SECONDS  between two pictures, 1 to 3600 (default 1)\n"
                              "  --count N        end after N pictures (default: go on)\n"
                              "  --json           the counters as they are now, as JSON; with "
                              "--count, one line each time\n"
                              "  --help, --version\n";

enum Status { ok = 0, failed = 1, misused = 2 };

struct Options {
    int delay = 1;
    int count = 0; // 0: for ever
    bool json = false;
    pid_t pid = 0; // 0: the one that publishes
};

bool parse_number(std::string_view text, int lowest, int highest, int& number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc{} && result.ptr == text.data() + text.size() &&
           number >= lowest && number <= highest;
}

bool parse_option(std::string_view name, const char* value, Options& options) {
    return (name == "--delay" && parse_number(value, 1, 3600, options.delay)) ||
           (name == "--count" && parse_number(value, 1, 1'000'000, options.count));
}

bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : "";
        if (argument == "--json") {
            options.json = true;
        } else if (parse_option(argument, value, options)) {
            ++i;
        } else if (options.pid != 0 || !parse_number(argument, 1, 1 << 30, options.pid)) {
            return false;
        }
    }
    if (options.json && options.count == 0)
        options.count = 1;
    return true;
}

bool choose_process(Options& options) {
    if (options.pid != 0)
        return true;
    const auto candidates = top::publishing_processes();
    if (candidates.size() == 1) {
        options.pid = candidates.front();
        return true;
    }
    if (candidates.empty()) {
        std::fputs("zelkernel-top: no process publishes counters (or we may not look into it): "
                   "start the application with ZELKERNEL_STATS=1\n",
                   stderr);
        return false;
    }
    std::fputs("zelkernel-top: several processes publish counters, give one of:", stderr);
    for (const pid_t pid : candidates)
        std::fprintf(stderr, " %d", pid);
    std::fputs("\n", stderr);
    return false;
}

top::Look look(const top::Statistics& statistics, pid_t pid) {
    using namespace std::chrono;
    const duration<double> now = steady_clock::now().time_since_epoch();
    return {*statistics, top::threads_of(pid), now.count()};
}

// Whose files are closed to us: that stays so.
bool is_closed(pid_t pid) {
    return access(("/proc/" + std::to_string(pid) + "/fd").c_str(), R_OK | X_OK) != 0 &&
           errno == EACCES;
}

// One that was given by its number may have been started just before.
top::Statistics wait_for_statistics(pid_t pid, std::string& problem) {
    using namespace std::chrono;
    const auto deadline = steady_clock::now() + seconds(5);
    for (;;) {
        if (!top::is_running(pid)) {
            problem = "process " + std::to_string(pid) + " does not run";
            return nullptr;
        }
        top::Statistics statistics = top::map_statistics(pid, problem);
        if (statistics != nullptr || is_closed(pid) || steady_clock::now() > deadline)
            return statistics;
        std::this_thread::sleep_for(milliseconds(20));
    }
}

std::string picture_of(const Options& options, const top::Look& before, const top::Look& now) {
    if (options.json)
        return top::to_json(options.pid, now);
    const bool is_terminal = isatty(STDOUT_FILENO) != 0;
    return (is_terminal ? "\033[H\033[2J" : "") + top::render(options.pid, before, now);
}

int show(const Options& options, const top::Statistics& statistics) {
    top::Look before = look(statistics, options.pid);
    for (int picture = 1; options.count == 0 || picture <= options.count; ++picture) {
        if (picture > 1 || !options.json) // a rate needs two looks
            std::this_thread::sleep_for(std::chrono::seconds(options.delay));
        if (!top::is_running(options.pid)) {
            std::fprintf(stderr, "zelkernel-top: process %d has ended\n", options.pid);
            return ok;
        }
        top::Look now = look(statistics, options.pid);
        std::fputs(picture_of(options, before, now).c_str(), stdout);
        if (!zel::tools::is_written(tool))
            return failed;
        before = std::move(now);
    }
    return ok;
}

} // namespace

int main(int argc, char** argv) {
    zel::tools::end_with_the_reader();
    Options options;
    const std::string_view only = argc == 2 ? argv[1] : "";
    if (only == "--help" || only == "--version") {
        std::fputs(only == "--help" ? usage : "zelkernel-top " ZEL_TOOLS_VERSION "\n", stdout);
        return zel::tools::is_written(tool) ? ok : failed;
    }
    if (!parse(argc, argv, options)) {
        std::fputs(usage, stderr);
        return misused;
    }
    if (!choose_process(options))
        return failed;
    std::string problem;
    const top::Statistics statistics = wait_for_statistics(options.pid, problem);
    if (statistics == nullptr) {
        std::fprintf(stderr, "zelkernel-top: %s\n", problem.c_str());
        return failed;
    }
    return show(options, statistics);
}
