// The command to record: it waits for release() before it becomes its program.
#pragma once

#include <sys/types.h>

namespace trace {

class Command {
public:
    explicit Command(char* const* command);

    pid_t process() const { return child_; }
    void release() const;
    bool ends();
    int status() const; // as a shell tells it; 0 while it runs

private:
    pid_t child_;
    int gate_;
    bool has_ended_ = false;
    int status_ = 0;
};

} // namespace trace
