// What the measuring programs share: a started kernel that leaves the machine alone, threads of a
// known priority and processor, and the line in which bench/table.py reads a measurement.
#pragma once

#include <zelkernel/kernel.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <time.h>

namespace bench {

inline void require(bool condition, const char* what) {
    if (condition)
        return;
    std::fprintf(stderr, "%s: %s\n", what, std::strerror(errno));
    std::exit(EXIT_FAILURE);
}

inline std::int64_t now_ns(clockid_t clock = CLOCK_MONOTONIC) {
    timespec now;
    clock_gettime(clock, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

inline void sleep_until(std::int64_t monotonic_ns) {
    const timespec until{static_cast<time_t>(monotonic_ns / 1'000'000'000),
                         static_cast<long>(monotonic_ns % 1'000'000'000)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
}

// How often to measure by turns: once where only the program is tried (table.py --once).
inline int turns(int usual) {
    return std::getenv("ZEL_BENCH_ONCE") != nullptr ? 1 : usual;
}

inline void report(const char* path, const char* side, double value) {
    std::printf("%s\t%s\t%.3f\n", path, side, value);
}

// A copy of the ip tool's directory of names, with one more, covers it. Where that is depends on
// the release: Debian 13 has no /etc/iproute2 of its own.
constexpr const char* know_table_external =
    "names=/etc/iproute2; [ -d $names ] || names=/usr/share/iproute2; cp -r $names /run/names && "
    "mkdir -p /run/names/rt_tables.d && echo 100 external >/run/names/rt_tables.d/bench.conf && "
    "mount --bind /run/names $names";

// Start-up deletes every named network namespace: it must not find the machine's own. The routing
// table `external` is named here only, too.
inline void enter_private_namespaces() {
    require(unshare(CLONE_NEWNS | CLONE_NEWNET) == 0, "unshare (root is needed)");
    require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "mount --make-private");
    require(mount("none", "/run", "tmpfs", 0, nullptr) == 0, "mount /run");
    require(mkdir("/run/netns", 0755) == 0, "mkdir /run/netns");
    require(std::system(know_table_external) == 0, "the table's name");
}

constexpr int linux_priority(int application_priority) {
    return application_priority + 10;
}
constexpr int interrupt_priority = 48;

inline void initialize_kernel(std::uint32_t tick_period_us, zel_run_poller_func poller) {
    zel_kernel_init({40, 38, 36, 0, 34, 0, 0, 20, 9}, tick_period_us, 0, poller, nullptr);
}

inline void start_kernel(std::uint32_t tick_period_us, zel_run_poller_func poller = nullptr) {
    enter_private_namespaces();
    initialize_kernel(tick_period_us, poller);
}

inline cpu_set_t one_cpu(std::size_t cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return set;
}

inline void pin_to_cpu0() {
    const cpu_set_t set = one_cpu(0);
    require(sched_setaffinity(0, sizeof set, &set) == 0, "sched_setaffinity");
}

// The kernel's scheduling model for a thread that the system alone makes; on all processors when
// `cpu` is negative.
inline pthread_attr_t fifo_attributes(int priority, int cpu) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setinheritsched(&attr, PTHREAD_EXPLICIT_SCHED);
    pthread_attr_setschedpolicy(&attr, SCHED_FIFO);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attr, 16384);
    const sched_param param{priority};
    pthread_attr_setschedparam(&attr, &param);
    if (cpu >= 0) {
        const cpu_set_t set = one_cpu(static_cast<std::size_t>(cpu));
        pthread_attr_setaffinity_np(&attr, sizeof set, &set);
    }
    return attr;
}

inline void start_thread(const pthread_attr_t& attr, void* (*routine)(void*), void* argument) {
    pthread_t thread;
    errno = pthread_create(&thread, &attr, routine, argument);
    require(errno == 0, "pthread_create");
}

} // namespace bench
