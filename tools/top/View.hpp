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

std::string render(pid_t pid, const Look& before, const Look& now);

} // namespace top
