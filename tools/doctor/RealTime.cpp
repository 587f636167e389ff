// Real-time rights and throttling, processors, timers.
#include "Check.hpp"

#include "Command.hpp"
#include "Text.hpp"
#include "TickTrial.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sched.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace zel::doctor {
namespace {

// Tried in a thread of its own, which ends with the trial.
int highest_fifo_priority() {
    int priority = sched_get_priority_max(SCHED_FIFO);
    const auto try_downwards = [&priority] {
        for (; priority > 0; --priority) {
            const sched_param param{.sched_priority = priority};
            if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0)
                return;
        }
    };
    std::thread(try_downwards).join();
    return priority;
}

Finding real_time_rights(const Request& request) {
    const int highest = highest_fifo_priority();
    if (highest == 0) {
        return {Status::missing, "SCHED_FIFO refused at every priority",
                lacking_in_commands({sys_nice}).empty() ? remedy_when_confined : ""};
    }
    const bool all = highest == sched_get_priority_max(SCHED_FIFO);
    if (!all && highest < highest_wanted(request)) {
        return {Status::missing,
                format("SCHED_FIFO up to priority %d, too low for the table", highest)};
    }
    return {all ? Status::ok : Status::note, format("SCHED_FIFO up to priority %d", highest)};
}

std::optional<long> number_in(const char* path) {
    std::FILE* file = std::fopen(path, "re");
    if (file == nullptr)
        return {};
    long value = 0;
    const bool read = std::fscanf(file, "%ld", &value) == 1;
    std::fclose(file);
    return read ? std::optional(value) : std::nullopt;
}

Finding throttling(const Request&) {
    const auto runtime = number_in("/proc/sys/kernel/sched_rt_runtime_us");
    const auto period = number_in("/proc/sys/kernel/sched_rt_period_us");
    if (!runtime || !period)
        return {Status::unknown, "/proc/sys/kernel/sched_rt_runtime_us cannot be read"};
    if (*runtime < 0 || *runtime >= *period)
        return {Status::ok, "off"};
    return {*runtime == 0 ? Status::missing : Status::note,
            format("real-time threads get %ld of every %ld us", *runtime, *period)};
}

Finding processors(const Request&) {
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    // As the library counts; a count that cannot be read is 1.
    const long counted =
        std::max(1L, std::atol(run_command("grep -c processor /proc/cpuinfo").output.c_str()));
    if (counted != online) {
        return {Status::note,
                format("%ld online, /proc/cpuinfo makes the library count %ld", online, counted)};
    }
    return {Status::ok, format("%ld", online)};
}

Finding processor_0(const Request&) {
    int error = 0;
    std::thread([&error] {
        cpu_set_t first;
        CPU_ZERO(&first);
        CPU_SET(0, &first);
        error = pthread_setaffinity_np(pthread_self(), sizeof first, &first);
    }).join();
    if (error != 0)
        return {Status::missing, "a thread cannot be placed on it"};
    return {Status::ok, "can be used"};
}

Finding timer_resolution(const Request&) {
    timespec resolution{};
    if (clock_getres(CLOCK_MONOTONIC, &resolution) != 0)
        return {Status::missing, "CLOCK_MONOTONIC has none"};
    constexpr long coarsest = 100'000; // a tenth of a 1 ms tick
    const bool fine = resolution.tv_sec == 0 && resolution.tv_nsec <= coarsest;
    return {fine ? Status::ok : Status::missing, format("%ld ns", resolution.tv_nsec)};
}

Finding time_after_2038(const Request&) {
#ifdef SYS_clock_gettime64
    // Of 32-bit systems alone: two words of 64 bits, whatever a time type of ours may be.
    std::array<std::int64_t, 2> now{};
    if (syscall(SYS_clock_gettime64, CLOCK_REALTIME, now.data()) != 0)
        return {Status::note, "the kernel's calls have 32-bit time"};
#endif
    return {Status::ok, "the kernel's calls have 64-bit time"};
}

// At the kernel-call thread's priority when it is known.
int tick_priority(const Request& request) {
    constexpr int middle = 50;
    const auto& words = request.priorities;
    const auto wanted = words ? std::int64_t{(*words)[2]} + (*words)[8] + request.caller_priority
                              : std::int64_t{middle};
    return static_cast<int>(std::clamp(wanted, std::int64_t{1}, std::int64_t{99}));
}

Finding tick_lateness(const Request& request) {
    TickTrial trial = run_tick_trial(tick_priority(request));
    if (trial.lateness_us.empty())
        return {Status::missing, "a timer with SIGEV_THREAD_ID cannot be made"};
    std::sort(trial.lateness_us.begin(), trial.lateness_us.end());
    const auto microseconds = [&trial](std::size_t percent) {
        const std::size_t last = trial.lateness_us.size() - 1;
        return long{trial.lateness_us[last * percent / 100]};
    };
    const bool good = trial.real_time && trial.lost == 0;
    return {good ? Status::ok : Status::note,
            format("median %ld us, 99 %% %ld us, maximum %ld us, %u of %zu ticks lost%s",
                   microseconds(50), microseconds(99), microseconds(100), trial.lost,
                   trial.lateness_us.size() + trial.lost,
                   trial.real_time ? "" : " (measured without real-time priority)")};
}

constexpr Check checks[] = {
    {"real-time rights", real_time_rights,
     "zel_kernel_init stops the process: the kernel-call thread cannot be made; a priority above "
     "the highest one allowed is refused with EPERM",
     "run as root, with the ambient capability sys_nice, or give the user an rtprio limit "
     "(limits.conf); in a control group, give it real-time bandwidth"},
    {"real-time throttling", throttling,
     "once its share is used up, every SCHED_FIFO thread stands still for the rest of the period: "
     "ticks are lost",
     "keep the load below the share, or switch it off: sysctl -w kernel.sched_rt_runtime_us=-1 (a "
     "thread that never blocks then takes its processor for good)"},
    {"processor count", processors,
     "setThreadAffinityCPU places threads by a count that is not the system's",
     "make /proc readable and grep available; or place threads with the system's own call"},
    {"processor 0", processor_0,
     "application threads are meant to run there, and now run wherever they may",
     "let the program's control group (cpuset) or taskset include processor 0"},
    {"timer resolution", timer_resolution, "ticks are rounded up to this resolution",
     "use a kernel with CONFIG_HIGH_RES_TIMERS, and no highres=off on its command line"},
    {"time after 2038", time_after_2038,
     "clocks and deadlines after January 2038 fail with EOVERFLOW, also in an application that is "
     "compiled with 64-bit time",
     "use a kernel from 5.1 on"},
    {"1 ms tick, lateness", tick_lateness,
     "the run poller and queued kernel calls run that late; lost ticks are not made up",
     "repeat it with nothing else running; look at power saving, interrupt load, and for a kernel "
     "with PREEMPT_RT"},
};

} // namespace

std::span<const Check> real_time_checks() {
    return checks;
}

} // namespace zel::doctor
