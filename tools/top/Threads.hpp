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

const char* policy_name(int policy);
bool is_real_time(const Thread& thread);

// A process that has ended and that its parent has not asked about is there, but does not run.
bool is_running(pid_t pid);

} // namespace top
