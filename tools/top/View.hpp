// One picture of an application: the difference between two looks at its counters.
#pragma once

#include "Threads.hpp"

#include <zelkernel/statistics.h>

#include <string>
#include <vector>

namespace top {

struct Look {
    zel_statistics statistics;
    std::vector<Thread> threads;
    double seconds; // of a steady clock
};

// Unused places of the table are skipped.
bool is_used(const zel_statistics_device& device);
std::string device_name(const zel_statistics_device& device);

// In the application's numbering; for threads under a real-time policy only.
int application_priority(const Thread& thread, const zel_statistics& statistics);

std::string render(pid_t pid, const Look& before, const Look& now);

} // namespace top
