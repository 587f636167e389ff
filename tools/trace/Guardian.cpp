#include "Guardian.hpp"

#include "Fail.hpp"
#include "Tracefs.hpp"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace trace {

Guardian::Guardian() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        fail("no pipe: " + std::string{std::strerror(errno)});
    const pid_t owner = getpid();
    child_ = fork();
    if (child_ == -1)
        fail("no process: " + std::string{std::strerror(errno)});
    if (child_ == 0) {
        setsid();
        close(ends[1]);
        char none;
        while (read(ends[0], &none, 1) == -1 && errno == EINTR) {
        }
        remove_traces_of(owner);
        _exit(0);
    }
    close(ends[0]);
    end_ = ends[1];
}

Guardian::~Guardian() {
    close(end_);
    waitpid(child_, nullptr, 0);
}

} // namespace trace
