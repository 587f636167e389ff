// One look at an application for scripts: counters as they are, without rates.
#pragma once

#include "View.hpp"

namespace top {

// One line.
std::string to_json(pid_t pid, const Look& now);

} // namespace top
