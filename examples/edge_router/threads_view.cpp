#include "threads_view.hpp"

#include "app_threads.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <sched.h>
#include <unistd.h>
#include <vector>
#include <zelkernel/kernel.h>

namespace {

struct Thread {
    pid_t id;
    std::string name;
    int policy;
    int priority; // Linux's
    cpu_set_t processors;
};

struct Expected {
    std::string name;
    int priority; // Linux's
    Processors processors;
};

// The shift between the two numberings, as the wrapped scheduling calls apply it.
int shift() {
    return kernel_priorities.app_base_priority - kernel_priorities.linux_base_priority;
}

Thread read_thread(pid_t id) {
    Thread thread{id, "", sched_getscheduler(id), 0, {}};
    std::ifstream name("/proc/self/task/" + std::to_string(id) + "/comm");
    std::getline(name, thread.name);
    sched_param parameters{};
    sched_getparam(id, &parameters);
    thread.priority = parameters.sched_priority;
    sched_getaffinity(id, sizeof thread.processors, &thread.processors);
    return thread;
}

std::vector<Thread> read_threads() {
    std::vector<Thread> threads;
    DIR* directory = opendir("/proc/self/task");
    if (directory == nullptr) {
        return threads;
    }
    while (const dirent* entry = readdir(directory)) {
        if (entry->d_name[0] != '.') {
            threads.push_back(read_thread(static_cast<pid_t>(std::atol(entry->d_name))));
        }
    }
    closedir(directory);
    std::sort(threads.begin(), threads.end(),
              [](const Thread& a, const Thread& b) { return a.priority > b.priority; });
    return threads;
}

std::string list_of(const cpu_set_t& processors) {
    std::string list;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &processors)) {
            list += list.empty() ? "" : ",";
            list += std::to_string(cpu);
        }
    }
    return list;
}

void print(const Thread& thread) {
    std::printf("  %-16s %11d  %-11s %5d  %s\n", thread.name.c_str(), thread.priority + shift(),
                thread.policy == SCHED_FIFO ? "SCHED_FIFO" : "other", thread.priority,
                list_of(thread.processors).c_str());
}

// The kernel's own threads run on all processors, the application's on the first unless they move.
// Linux keeps 15 characters of a name, and the wrapped call that sets it marks a longer one.
std::vector<Expected> expected_threads() {
    const KernelPriorities& table = kernel_priorities;
    const auto kernel_priority = [](int word) {
        return word + kernel_priorities.linux_base_priority;
    };
    std::vector<Expected> expected{
        {"KCall", kernel_priority(table.kcall_thread_priority), Processors::all},
        {"InterruptThread", kernel_priority(table.interrupt_thread_priority), Processors::all}};
    for (const AppThread& thread : app_threads()) {
        const bool longer = thread.name.size() > 15;
        expected.push_back({longer ? thread.name.substr(0, 14) + "~" : thread.name,
                            thread.priority - shift(), thread.processors});
    }
    return expected;
}

// "All" are those that the main thread may use: a container may not have the whole machine.
bool is_placed(const cpu_set_t& processors, Processors where) {
    if (where == Processors::first) {
        return CPU_COUNT(&processors) == 1 && CPU_ISSET(0, &processors);
    }
    cpu_set_t mine, shared;
    sched_getaffinity(0, sizeof mine, &mine);
    CPU_AND(&shared, &mine, &processors);
    return CPU_EQUAL(&shared, &mine);
}

bool is_as(const Expected& expected, const Thread& thread) {
    return thread.name == expected.name && thread.policy == SCHED_FIFO &&
           thread.priority == expected.priority &&
           is_placed(thread.processors, expected.processors);
}

// The names of those that are not there, or not as they should be.
std::string missing_of(const std::vector<Expected>& expected, const std::vector<Thread>& threads) {
    std::string missing;
    for (const Expected& one : expected) {
        if (std::none_of(threads.begin(), threads.end(),
                         [&one](const Thread& thread) { return is_as(one, thread); })) {
            missing += " \"" + one.name + "\"";
        }
    }
    return missing;
}

// A thread of the library's own names and places itself once it comes to run, which on a busy
// machine may be later than now.
std::vector<Thread> read_settled_threads(const std::vector<Expected>& expected) {
    std::vector<Thread> threads = read_threads();
    for (int attempt = 0; attempt < 3000 && !missing_of(expected, threads).empty(); ++attempt) {
        usleep(10'000);
        threads = read_threads();
    }
    return threads;
}

} // namespace

void show_threads(Checks& checks) {
    const std::vector<Expected> expected = expected_threads();
    const std::vector<Thread> threads = read_settled_threads(expected);
    std::printf("\nThreads\n  %-16s %11s  %-11s %5s  %s\n", "name", "application", "policy",
                "Linux", "processors");
    for (const Thread& thread : threads) {
        print(thread);
    }
    const std::string missing = missing_of(expected, threads);
    checks.expect(missing.empty(),
                  text("threads: policy, priority and processors of %zu are as asked for%s%s",
                       expected.size(), missing.empty() ? "" : ", but not:", missing.c_str()));
}
