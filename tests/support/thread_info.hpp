#pragma once

#include "wait.hpp"

#include <filesystem>
#include <fstream>
#include <map>
#include <sched.h>
#include <string>
#include <sys/types.h>
#include <unistd.h>

namespace zel::test {

// A thread of this process as the kernel shows it.
struct ThreadInfo {
    pid_t tid = 0;
    int policy = -1;
    int priority = -1;
    std::map<std::string, std::string> status; // lines of /proc/self/task/TID/status

    unsigned long long signals(const char* key) const {
        return std::stoull(status.at(key), nullptr, 16);
    }
    bool blocks(int signal) const { return (signals("SigBlk") >> (signal - 1) & 1) != 0; }
};

inline ThreadInfo thread_info(pid_t tid) {
    ThreadInfo info;
    info.tid = tid;
    std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/status");
    for (std::string line; std::getline(file, line);) {
        const size_t colon = line.find(":\t");
        if (colon != std::string::npos)
            info.status[line.substr(0, colon)] = line.substr(colon + 2);
    }
    sched_param param{};
    info.policy = sched_getscheduler(tid);
    sched_getparam(tid, &param);
    info.priority = param.sched_priority;
    return info;
}

// Cpus_allowed_list of a thread that may run everywhere.
inline std::string all_cpus() {
    const long last = sysconf(_SC_NPROCESSORS_ONLN) - 1;
    return last == 0 ? "0" : "0-" + std::to_string(last);
}

// The thread of that name, once there is one: threads of the library name themselves. `tid` is 0 if
// none appears.
inline ThreadInfo thread_named(const std::string& name) {
    ThreadInfo found;
    eventually([&] {
        for (const auto& task : std::filesystem::directory_iterator{"/proc/self/task"}) {
            ThreadInfo info = thread_info(std::stoi(task.path().filename()));
            if (info.status["Name"] == name)
                found = std::move(info);
        }
        return found.tid != 0;
    });
    return found;
}

} // namespace zel::test
