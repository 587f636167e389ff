#include "Record.hpp"

#include "Command.hpp"
#include "Cost.hpp"
#include "Fail.hpp"
#include "Guardian.hpp"
#include "Process.hpp"
#include "Symbols.hpp"
#include "TraceFile.hpp"
#include "Tracefs.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <time.h>
#include <unistd.h>
#include <utility>

namespace trace {
namespace {

// What the file has of the process, which is looked at as long as it is there.
class Facts {
public:
    Facts(pid_t process, Library library, std::uint64_t priorities)
        : process_(process), library_(std::move(library)), priorities_(priorities) {}

    void look() {
        if (library_.base == 0)
            library_.base = base_of(process_, library_.path);
        if (library_.base == 0) // not loaded yet
            return;
        const std::string memory = describe_memory(process_, library_, priorities_);
        if (memory.empty())
            return;
        memory_ = memory;
        describe_threads(process_, threads_);
        for (const auto& [path, base] : application_files(process_)) {
            if (!symbols_.contains(path))
                symbols_[path] = describe_symbols(path, base);
        }
    }

    std::string text() const {
        std::string text = "process " + std::to_string(process_) + '\n' + memory_;
        for (const auto& [thread, line] : threads_)
            text += line;
        for (const auto& [path, lines] : symbols_)
            text += lines;
        return text;
    }

private:
    pid_t process_;
    Library library_;
    std::uint64_t priorities_;
    std::string memory_;
    std::map<pid_t, std::string> threads_;
    std::map<std::string, std::string> symbols_; // by file: each is read once
};

double seconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Until the time is over, the process has ended or somebody asks to stop. A process that ends soon
// is to be seen, too: the first looks follow each other quickly.
void wait_for_end(const Options& options, const sigset_t& signals, Command* command, Facts& facts) {
    const double end = seconds_now() + options.seconds;
    timespec moment{0, 5'000'000};
    while (seconds_now() < end) {
        facts.look();
        const int signal = sigtimedwait(&signals, nullptr, &moment);
        if (signal == SIGINT || signal == SIGTERM || signal == SIGHUP)
            return;
        if (command != nullptr ? command->ends() : has_ended(options.process))
            return;
        moment.tv_nsec = std::min(2 * moment.tv_nsec, 100'000'000L);
    }
}

// Events that the recording does not have: overwritten by newer ones, or dropped.
std::string describe_losses(const std::string& instance) {
    std::string facts;
    std::error_code error;
    unsigned long all = 0;
    for (const auto& entry : std::filesystem::directory_iterator{instance + "/per_cpu", error}) {
        const std::string text = read_file(entry.path().string() + "/stats");
        const unsigned long lost =
            statistic(text, "\noverrun: ") + statistic(text, "dropped events: ");
        all += lost;
        facts += "lost " + entry.path().filename().string() + ' ' + std::to_string(lost) + '\n';
    }
    std::printf("zelkernel-trace: %lu events lost%s\n", all,
                all == 0 ? "" : ": older ones, for which --buffer was too small");
    return facts;
}

// The events of the kernel and of the library. What is missing is said, in zelkernel-doctor's
// words.
void enable_events(Instance& instance, const std::string& library, const ProbedFile& file) {
    instance.enable_kernel_events();
    instance.add_probes(library, file);
    for (const Lack& lack : instance.lacking()) {
        std::fprintf(
            stderr, "missing  %-28s %s\n           consequence: %s\n           remedy: %s\n",
            lack.what.c_str(), lack.found.c_str(), lack.consequence.c_str(), lack.remedy.c_str());
    }
}

// Records until the end; gives what the file is to have beside the events.
std::string record_with(Instance& instance, const Options& options, Facts facts,
                        const sigset_t& signals, Command* command) {
    const Prices prices = try_prices(instance);
    instance.start();
    const double begin = seconds_now(), own = own_seconds();
    if (command != nullptr)
        command->release();
    std::printf("zelkernel-trace: recording process %d for %u s; Ctrl-C ends it earlier\n",
                options.process, options.seconds);
    std::fflush(stdout);
    wait_for_end(options, signals, command, facts);
    instance.stop();
    const std::string cost =
        describe_cost(instance, prices, seconds_now() - begin, own_seconds() - own);
    std::printf("zelkernel-trace: cost %s\n", cost.c_str());
    std::string text = facts.text() + "cost " + cost + '\n';
    for (const Lack& lack : instance.lacking())
        text += "lacks " + lack.what + ": " + lack.consequence + '\n';
    return text + describe_losses(instance.directory());
}

// One that has just been started may not have loaded its libraries yet.
Library library_of_process(pid_t process) {
    Library library = find_library(process);
    for (int looks = 0; looks < 100 && library.path.empty() && !has_ended(process); ++looks) {
        usleep(20'000);
        library = find_library(process);
    }
    return library;
}

// Before anything is started: what the recording needs to begin and to end well.
Library check(const Options& options) {
    if (const std::string problem = why_no_tracing(); !problem.empty())
        fail(problem);
    if (!can_be_written(options.file))
        fail(options.file + ": " + std::strerror(errno));
    if (options.command == nullptr && has_ended(options.process))
        fail("there is no process " + std::to_string(options.process));
    if (options.command != nullptr && find_program(options.command[0]).empty())
        fail(std::string{options.command[0]} + ": no such program");
    Library library = options.command != nullptr ? library_of_command(options.command)
                                                 : library_of_process(options.process);
    if (library.path.empty()) {
        fail("no libzelkernel with probe points is loaded: is this the application itself, and was "
             "the library built with sys/sdt.h (Debian: systemtap-sdt-dev)?");
    }
    return library;
}

} // namespace

int record(Options options) {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
        sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, nullptr);

    const Library library = check(options);
    // Before the mount namespace: the command is to live in its caller's.
    std::optional<Command> command;
    if (options.command != nullptr) {
        command.emplace(options.command);
        options.process = command->process();
    }
    if (const std::string problem = enter_tracefs(); !problem.empty())
        fail(problem);
    remove_traces_of_dead_recorders();

    const Guardian guardian;
    const ProbedFile file = read_probed_file(library.path);
    Instance instance{getpid(), options.buffer_kib};
    if (!instance.problem().empty()) {
        std::fprintf(stderr, "zelkernel-trace: %s\n", instance.problem().c_str());
        return failed;
    }
    enable_events(instance, library.path, file);
    const std::string facts =
        record_with(instance, options, Facts{options.process, library, file.priorities}, signals,
                    command ? &*command : nullptr);
    if (!write_trace_file(options.file, instance.directory(), instance.group(), facts)) {
        std::fprintf(stderr, "zelkernel-trace: %s: %s\n", options.file.c_str(),
                     std::strerror(errno));
        return failed;
    }
    std::printf("zelkernel-trace: see `zelkernel-trace report %s`\n", options.file.c_str());
    return command ? command->status() : ok;
}

} // namespace trace
