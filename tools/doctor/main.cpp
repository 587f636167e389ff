// zelkernel-doctor: what libzelkernel will find on this machine.
#include "../Output.hpp"
#include "Check.hpp"
#include "Report.hpp"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <getopt.h>
#include <string_view>

namespace {

using namespace zel::doctor;

constexpr const char* tool = "zelkernel-doctor";
constexpr const char* usage =
    "Usage: zelkernel-doctor [--json] [--priorities W0,...,W8 [--caller-priority N]]\n"
    "Says what libzelkernel will find on this machine. Changes nothing.\n"
    "\n"
    "  --priorities W0,...,W8  check this table of kernel priorities, too\n"
    "  --caller-priority N     SCHED_FIFO priority of the thread that will call\n"
    "                          zel_kernel_init (default 1)\n"
    "  --json                  report as JSON\n"
    "  --help, --version\n"
    "\n"
    "Exit status: 0 all good, 1 something is missing or could not be tried, 2 usage, or the "
    "report\n"
    "cannot be written.\n";

constexpr int failed = 2;

struct Options {
    Request request;
    bool json = false;
};

// `count` numbers with commas between them, and nothing else.
bool parse_numbers(std::string_view text, std::int32_t* numbers, std::size_t count) {
    const char* const end = text.data() + text.size();
    const char* next = text.data();
    for (std::size_t i = 0; i < count; ++i) {
        if (i > 0 && (next == end || *next++ != ','))
            return false;
        const auto [after, error] = std::from_chars(next, end, numbers[i]);
        if (error != std::errc())
            return false;
        next = after;
    }
    return next == end;
}

bool parse_priorities(const char* text, Request& request) {
    auto& words = request.priorities.emplace();
    return parse_numbers(text, words.data(), words.size());
}

[[noreturn]] void leave_with(int status, std::FILE* stream, const char* text) {
    std::fputs(text, stream);
    std::exit(zel::tools::is_written(tool) ? status : failed);
}

Options parse(int argc, char** argv) {
    static const option options[] = {{"json", no_argument, nullptr, 'j'},
                                     {"priorities", required_argument, nullptr, 'p'},
                                     {"caller-priority", required_argument, nullptr, 'c'},
                                     {"help", no_argument, nullptr, 'h'},
                                     {"version", no_argument, nullptr, 'V'},
                                     {}};
    Options result;
    bool valid = true;
    int choice;
    while ((choice = getopt_long(argc, argv, "", options, nullptr)) != -1) {
        if (choice == 'h')
            leave_with(0, stdout, usage);
        if (choice == 'V')
            leave_with(0, stdout, "zelkernel-doctor " ZEL_TOOLS_VERSION "\n");
        if (choice == 'j') {
            result.json = true;
        } else if (choice == 'p') {
            valid = valid && parse_priorities(optarg, result.request);
        } else if (choice == 'c') {
            valid = valid && parse_numbers(optarg, &result.request.caller_priority, 1);
        } else {
            valid = false;
        }
    }
    if (!valid || optind != argc)
        leave_with(failed, stderr, usage);
    return result;
}

} // namespace

int main(int argc, char** argv) {
    zel::tools::end_with_the_reader();
    const Options options = parse(argc, argv);
    setenv("LC_ALL", "C", 1); // what the commands print is read
    std::vector<Result> results;
    for (const auto checks : {real_time_checks(), tool_checks(), run_directory_checks()})
        run_checks(checks, options.request, results);
    run_in_private_namespaces(network_checks(), options.request, results);
    const auto priorities = check_priorities(options.request);
    results.insert(results.end(), priorities.begin(), priorities.end());
    (options.json ? print_json : print_text)(results);
    if (!zel::tools::is_written(tool))
        return failed;
    return all_good(results) ? 0 : 1;
}
