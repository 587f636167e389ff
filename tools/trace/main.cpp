// zelkernel-trace: records what an application and the kernel below it do. Report and export are a
// Python program, for which this one only stands at the door: the target records without it.
#include "../Output.hpp"
#include "Cost.hpp"
#include "Process.hpp"
#include "Symbols.hpp"
#include "TraceFile.hpp"
#include "Tracefs.hpp"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <optional>
#include <string_view>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace trace;

constexpr const char* usage =
    "usage: zelkernel-trace record [-o FILE] [--seconds N] [--buffer KIB] PID\n"
    "       zelkernel-trace record [-o FILE] [--seconds N] [--buffer KIB] -- COMMAND...\n"
    "       zelkernel-trace report [--json] [--latest N] FILE\n"
    "       zelkernel-trace export [--html | --svg CASE] [--latest N] [-o OUTPUT] FILE\n"
    "Shows why an application's ticks, interrupts and threads were late.\n"
    "  -o FILE       the recording (zelkernel.trace)\n"
    "  --seconds N   how long to record (10); ends with the application, too\n"
    "  --buffer KIB  memory for each processor (16384); the newest events are kept\n"
    "  --help, --version\n";

enum Status { ok = 0, failed = 1, misused = 2 };

struct Options {
    std::string file = "zelkernel.trace";
    unsigned seconds = 10;
    unsigned buffer_kib = 16384;
    pid_t process = 0;
    char* const* command = nullptr;
};

template<typename Number>
bool parse_number(std::string_view text, Number lowest, Number highest, Number& number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc{} && result.ptr == text.data() + text.size() &&
           number >= lowest && number <= highest;
}

// Whether `name` is an option; its value is judged by parse_value().
bool is_option(std::string_view name) {
    return name == "-o" || name == "--seconds" || name == "--buffer";
}

bool parse_value(std::string_view name, const char* value, Options& options) {
    if (name == "--seconds")
        return parse_number(value, 1u, 86400u, options.seconds);
    if (name == "--buffer")
        return parse_number(value, 64u, 1u << 20, options.buffer_kib);
    options.file = value;
    return *value != '\0';
}

bool parse(int argc, char** argv, Options& options) {
    for (int i = 2; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--") {
            options.command = argv + i + 1;
            return i + 1 < argc && options.process == 0;
        }
        if (is_option(argument)) {
            if (++i == argc || !parse_value(argument, argv[i], options))
                return false;
        } else if (options.process != 0 || !parse_number(argument, 1, 1 << 30, options.process)) {
            return false;
        }
    }
    return options.process != 0;
}

[[noreturn]] void fail(const std::string& reason) {
    std::fprintf(stderr, "zelkernel-trace: %s\n", reason.c_str());
    std::exit(failed);
}

// A child that removes instance and probes when this process ends, in whatever way.
class Guardian {
public:
    Guardian() {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            fail("no pipe: " + std::string{std::strerror(errno)});
        const pid_t owner = getpid();
        child_ = fork();
        if (child_ == 0) {
            setsid();
            close(ends[1]);
            char none;
            while (read(ends[0], &none, 1) == -1 && errno == EINTR) {
            }
            remove_traces_of(owner);
            _exit(0);
        }
        close(ends[0]);
        end_ = ends[1];
    }
    ~Guardian() {
        close(end_);
        waitpid(child_, nullptr, 0);
    }
    Guardian(const Guardian&) = delete;
    Guardian& operator=(const Guardian&) = delete;

private:
    pid_t child_;
    int end_;
};

// Starts the command, which waits for release() before it becomes its program.
class Command {
public:
    explicit Command(char* const* command) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            fail("no pipe: " + std::string{std::strerror(errno)});
        child_ = fork();
        if (child_ == 0) {
            close(ends[1]);
            char go;
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            if (read(ends[0], &go, 1) != 1)
                _exit(127);
            execvp(command[0], command);
            std::fprintf(stderr, "zelkernel-trace: %s: %s\n", command[0], std::strerror(errno));
            _exit(127);
        }
        close(ends[0]);
        gate_ = ends[1];
    }
    pid_t process() const { return child_; }
    bool ends() {
        if (!has_ended_ && waitpid(child_, &status_, WNOHANG) == child_)
            has_ended_ = true;
        return has_ended_;
    }
    // As a shell tells it; 0 while it runs.
    int status() const {
        return WIFSIGNALED(status_) ? 128 + WTERMSIG(status_) : WEXITSTATUS(status_);
    }
    void release() const {
        [[maybe_unused]] const ssize_t written = write(gate_, "", 1);
        close(gate_);
    }

private:
    pid_t child_;
    int gate_;
    bool has_ended_ = false;
    int status_ = 0;
};

double seconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Until the time is over, the process has ended or somebody asks to stop; `facts` follows the
// process as long as it can be read.
template<typename Look>
void wait_for_end(const Options& options, const sigset_t& signals, Command* command, Look look) {
    const double end = seconds_now() + options.seconds;
    constexpr timespec moment{0, 100'000'000};
    while (seconds_now() < end) {
        const int signal = sigtimedwait(&signals, nullptr, &moment);
        if (signal == SIGINT || signal == SIGTERM || signal == SIGHUP)
            return;
        if (command != nullptr ? command->ends() : has_ended(options.process))
            return;
        look();
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
std::string record_with(Instance& instance, const Options& options, Library library,
                        const ProbedFile& file, const sigset_t& signals, Command* command) {
    const Prices prices = try_prices(instance);
    instance.start();
    const double begin = seconds_now(), own = own_seconds();
    if (command != nullptr)
        command->release();
    std::printf("zelkernel-trace: recording process %d for %u s; Ctrl-C ends it earlier\n",
                options.process, options.seconds);
    std::fflush(stdout);

    std::string facts;
    std::map<std::string, std::string> symbols; // by file: each is read once, while it is there
    wait_for_end(options, signals, command, [&] {
        if (library.base == 0)
            library.base = base_of(options.process, library.path);
        const std::string latest = describe(options.process, library, file.priorities);
        // A process that is ending has threads for a while, but no memory any more.
        if (latest.find("\nmap ") == std::string::npos || library.base == 0)
            return;
        facts = latest;
        for (const auto& [path, base] : application_files(options.process)) {
            if (!symbols.contains(path))
                symbols[path] = describe_symbols(path, base);
        }
    });
    instance.stop();
    const std::string cost =
        describe_cost(instance, prices, seconds_now() - begin, own_seconds() - own);
    std::printf("zelkernel-trace: cost %s\n", cost.c_str());
    for (const auto& [path, lines] : symbols)
        facts += lines;
    facts += "cost " + cost + '\n';
    for (const Lack& lack : instance.lacking())
        facts += "lacks " + lack.what + ": " + lack.consequence + '\n';
    return facts + describe_losses(instance.directory());
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

int record(Options options) {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
        sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, nullptr);

    // Before the mount namespace: the command is to live in its caller's.
    std::optional<Command> command;
    Library library;
    if (options.command != nullptr) {
        library = library_of_command(options.command);
        command.emplace(options.command);
        options.process = command->process();
    } else if (has_ended(options.process)) {
        fail("there is no process " + std::to_string(options.process));
    } else {
        library = library_of_process(options.process);
    }
    if (library.path.empty()) {
        fail("no libzelkernel with probe points is loaded: is this the application itself, and was "
             "the library built with sys/sdt.h (Debian: systemtap-sdt-dev)?");
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
        record_with(instance, options, library, file, signals, command ? &*command : nullptr);
    if (!write_trace_file(options.file, instance.directory(), instance.group(), facts)) {
        std::fprintf(stderr, "zelkernel-trace: %s: %s\n", options.file.c_str(),
                     std::strerror(errno));
        return failed;
    }
    std::printf("zelkernel-trace: see `zelkernel-trace report %s`\n", options.file.c_str());
    return command ? command->status() : ok;
}

// Does not return, unless there is no Python.
int read(char** argv) {
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
    const std::string reader = self.parent_path().parent_path() / ZEL_TRACE_READER;
    if (access(reader.c_str(), R_OK) != 0) {
        fail("report and export are not installed here (Debian: zelkernel-host-tools): take the "
             "recording to a machine that has them");
    }
    std::vector<const char*> arguments{"python3", "-B", reader.c_str()};
    while (*++argv != nullptr)
        arguments.push_back(*argv);
    arguments.push_back(nullptr);
    execvp(arguments[0], const_cast<char**>(arguments.data()));
    fail("report and export need python3: take the recording to a machine that has it");
}

} // namespace

int main(int argc, char** argv) {
    const std::string_view what = argc > 1 ? argv[1] : "";
    Options options;
    if (what == "record" && parse(argc, argv, options))
        return record(options);
    if (what == "report" || what == "export")
        return read(argv);
    const bool asked = argc == 2 && (what == "--help" || what == "--version");
    if (!asked) {
        std::fputs(usage, stderr);
        return misused;
    }
    zel::tools::end_with_the_reader();
    std::fputs(what == "--help" ? usage : "zelkernel-trace " ZEL_TOOLS_VERSION "\n", stdout);
    return zel::tools::is_written("zelkernel-trace") ? ok : failed;
}
