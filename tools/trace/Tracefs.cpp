#include "Tracefs.hpp"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace trace {
namespace {

const std::string prefix = "zelkernel_";

struct KernelEvent {
    const char* name;
    const char* without;
    const char* option; // of the kernel's configuration
};

constexpr KernelEvent kernel_events[] = {
    {"sched/sched_switch", "which thread ran is not known", "CONFIG_FTRACE"},
    {"sched/sched_waking", "when a thread was woken is not known", "CONFIG_FTRACE"},
    {"sched/sched_wakeup", "wake-ups across processors are not told apart", "CONFIG_FTRACE"},
    {"sched/sched_migrate_task", "moves between processors are not seen", "CONFIG_SMP"},
    {"sched/sched_pi_setprio", "inherited priorities are not shown", "CONFIG_RT_MUTEXES"},
    {"timer/hrtimer_start", "lateness counts from the wake-up", "CONFIG_HIGH_RES_TIMERS"},
    {"timer/hrtimer_expire_entry", "lateness counts from the wake-up", "CONFIG_HIGH_RES_TIMERS"},
    {"timer/hrtimer_expire_exit", "lateness counts from the wake-up", "CONFIG_HIGH_RES_TIMERS"},
    {"irq/irq_handler_entry", "hardware interrupts count as the thread below", "CONFIG_FTRACE"},
    {"irq/irq_handler_exit", "hardware interrupts count as the thread below", "CONFIG_FTRACE"},
    {"irq/softirq_entry", "soft interrupts count as the thread below", "CONFIG_FTRACE"},
    {"irq/softirq_exit", "soft interrupts count as the thread below", "CONFIG_FTRACE"},
};

bool is_alive(pid_t process) {
    return kill(process, 0) == 0 || errno != ESRCH;
}

// The recorder's id in "zelkernel_123" at the start of a text; 0 when it is not of that form.
pid_t owner_in(const std::string& text) {
    pid_t owner = 0;
    if (text.starts_with(prefix))
        std::from_chars(text.data() + prefix.size(), text.data() + text.size(), owner);
    return owner;
}

// "p:zelkernel_123/tick /lib/..." gives "zelkernel_123/tick".
std::string probe_name(const std::string& line) {
    const auto start = line.find(':');
    if (start == std::string::npos)
        return {};
    return line.substr(start + 1, line.find(' ') - start - 1);
}

} // namespace

bool write_file(const std::string& path, const std::string& text, bool append) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC | (append ? O_APPEND : O_TRUNC));
    if (fd == -1)
        return false;
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int kept = errno;
    close(fd);
    errno = kept;
    return written;
}

// By read(2): these files have no size.
std::string read_file(const std::string& path) {
    std::string text;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return text;
    char part[16384];
    for (ssize_t length; (length = read(fd, part, sizeof part)) > 0;)
        text.append(part, static_cast<size_t>(length));
    close(fd);
    return text;
}

unsigned long statistic(const std::string& text, const char* name) {
    const auto at = text.find(name);
    return at == std::string::npos
               ? 0
               : std::strtoul(text.c_str() + at + std::strlen(name), nullptr, 10);
}

// In another one, threads have other numbers than in the kernel's events, and the recorders of the
// rest of the machine look dead.
bool is_in_first_pid_namespace() {
    constexpr ino_t first = 0xEFFFFFFC; // the same in every kernel
    struct stat status {};
    return stat("/proc/self/ns/pid", &status) != 0 || status.st_ino == first;
}

std::string why_no_tracing() {
    if (geteuid() != 0)
        return "tracing needs root (tracefs, uprobes): run this as root";
    if (!is_in_first_pid_namespace())
        return "this is a container (PID namespace): run this on the machine itself";
    if (access(tracefs.c_str(), F_OK) != 0)
        return "this kernel has no tracefs: it needs CONFIG_FTRACE and CONFIG_UPROBE_EVENTS";
    return {};
}

std::string enter_tracefs() {
    const bool is_mounted = access((tracefs + "/instances").c_str(), W_OK) == 0;
    if (!is_mounted && (unshare(CLONE_NEWNS) != 0 ||
                        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                        mount("tracefs", tracefs.c_str(), "tracefs", 0, nullptr) != 0))
        return "cannot mount tracefs: " + std::string{std::strerror(errno)};
    if (access((tracefs + "/uprobe_events").c_str(), W_OK) != 0)
        return "this kernel has no uprobes: it needs CONFIG_UPROBE_EVENTS";
    return {};
}

void remove_traces_of(pid_t owner) {
    const std::string group = prefix + std::to_string(owner);
    const std::string instance = tracefs + "/instances/" + group;
    write_file(instance + "/tracing_on", "0");
    write_file(instance + "/events/enable", "0");
    // Somebody may still be reading there.
    for (int attempt = 0; attempt < 50 && rmdir(instance.c_str()) != 0 && errno == EBUSY; ++attempt)
        usleep(100'000);
    std::istringstream lines{read_file(tracefs + "/uprobe_events")};
    for (std::string line; std::getline(lines, line);) {
        const std::string name = probe_name(line);
        if (name.starts_with(group + "/"))
            write_file(tracefs + "/uprobe_events", "-:" + name, true);
    }
}

void remove_traces_of_dead_recorders() {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator{tracefs + "/instances", error})
        names.push_back(entry.path().filename().string());
    std::istringstream lines{read_file(tracefs + "/uprobe_events")};
    for (std::string line; std::getline(lines, line);)
        names.push_back(probe_name(line));
    for (const std::string& name : names) {
        const pid_t owner = owner_in(name);
        // The numbers of processes come round: a dead one's may be our own.
        if (owner != 0 && (owner == getpid() || !is_alive(owner)))
            remove_traces_of(owner);
    }
}

Instance::Instance(pid_t owner, unsigned buffer_kib_per_processor)
    : group_(prefix + std::to_string(owner)), directory_(tracefs + "/instances/" + group_) {
    if (mkdir(directory_.c_str(), 0700) != 0) {
        problem_ = "cannot make a trace instance: " + std::string{std::strerror(errno)};
        return;
    }
    stop();
    // The clock of the application's own measurements and of the timers' expiry.
    if (!write_file(directory_ + "/trace_clock", "mono")) {
        lacking_.push_back({"trace clock mono", std::strerror(errno),
                            "lateness counts from the wake-up", "a kernel of 3.17 or later"});
    }
    if (!write_file(directory_ + "/buffer_size_kb", std::to_string(buffer_kib_per_processor))) {
        problem_ = "no memory for " + std::to_string(buffer_kib_per_processor) +
                   " KiB of buffer for each processor: give a smaller --buffer";
    }
}

void Instance::enable_kernel_events() {
    for (const KernelEvent& event : kernel_events) {
        if (!switch_event(event.name, true)) {
            lacking_.push_back({event.name, std::strerror(errno), event.without,
                                std::string{"a kernel with "} + event.option});
        }
    }
}

bool Instance::switch_event(const std::string& name, bool on) {
    return write_file(directory_ + "/events/" + name + "/enable", on ? "1" : "0");
}

bool Instance::define_probe(const std::string& name, const std::string& path, std::uint64_t offset,
                            const std::string& arguments) {
    std::ostringstream definition;
    definition << "p:" << group_ << '/' << name << ' ' << path << ":0x" << std::hex << offset
               << arguments;
    return write_file(tracefs + "/uprobe_events", definition.str(), true);
}

void Instance::add_probes(const std::string& path, const ProbedFile& file) {
    std::map<std::string, int> places;
    for (const ProbePoint& point : file.points) {
        // A second place of the same kind needs a name of its own.
        const int place = ++places[point.name];
        const std::string name = point.name + (place == 1 ? "" : "__" + std::to_string(place));
        if (!point.can_be_stopped_by) {
            lacking_.push_back({"the library's " + point.name, "in Thumb code",
                                "what the library does then is not shown",
                                "a library whose probe points are ARM code"});
        } else if (!define_probe(name, path, point.offset,
                                 reference_counter(point) + fetch_arguments(point)) ||
                   !switch_event(group_ + "/" + name, true)) {
            lacking_.push_back({"the library's " + point.name, std::strerror(errno),
                                "what the library does then is not shown",
                                "a kernel with CONFIG_UPROBE_EVENTS"});
        }
    }
}

void Instance::remove_probe(const std::string& name) {
    write_file(tracefs + "/uprobe_events", "-:" + group_ + "/" + name, true);
}

void Instance::start() {
    write_file(directory_ + "/tracing_on", "1");
}

void Instance::stop() {
    write_file(directory_ + "/tracing_on", "0");
}

void Instance::clear() {
    write_file(directory_ + "/trace", "");
}

} // namespace trace
