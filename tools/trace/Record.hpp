// Recording, from the first look at the application to the file.
#pragma once

#include <string>
#include <sys/types.h>

namespace trace {

struct Options {
    std::string file = "zelkernel.trace";
    unsigned seconds = 10;
    unsigned buffer_kib = 16384;
    pid_t process = 0;
    char* const* command = nullptr; // instead of a process
};

int record(Options options); // gives the exit status

} // namespace trace
