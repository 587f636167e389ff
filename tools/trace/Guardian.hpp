// A child that removes instance and probes when this process ends, in whatever way.
#pragma once

#include <sys/types.h>

namespace trace {

class Guardian {
public:
    Guardian();
    ~Guardian(); // waits until all is removed
    Guardian(const Guardian&) = delete;
    Guardian& operator=(const Guardian&) = delete;

private:
    pid_t child_;
    int end_;
};

} // namespace trace
