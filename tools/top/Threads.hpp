// The threads of a process as Linux sees them.
#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace top {

struct Thread {
    pid_t id;
    std::string name;
    int policy;          // SCHED_...
    int priority;        // Linux's
    std::string allowed; // processors
    int processor;       // where it ran last
};

std::vector<Thread> threads_of(pid_t pid);

} // namespace top
