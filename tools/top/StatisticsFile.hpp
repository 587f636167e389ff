// The counters of a running application, mapped from its memory file.
#pragma once

#include <zelkernel/statistics.h>

#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace top {

using Statistics = std::shared_ptr<const zel_statistics>;

// Processes that publish counters and that we may look into.
std::vector<pid_t> publishing_processes();

// Null, with the reason in `problem`, when the process publishes none that we can read.
Statistics map_statistics(pid_t pid, std::string& problem);

} // namespace top
