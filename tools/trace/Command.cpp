#include "Command.hpp"

#include "Fail.hpp"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace trace {
namespace {

[[noreturn]] void become(char* const* command, int gate) {
    char go;
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (read(gate, &go, 1) != 1)
        _exit(127);
    execvp(command[0], command);
    std::fprintf(stderr, "zelkernel-trace: %s: %s\n", command[0], std::strerror(errno));
    _exit(127);
}

} // namespace

Command::Command(char* const* command) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        fail("no pipe: " + std::string{std::strerror(errno)});
    child_ = fork();
    if (child_ == -1)
        fail("no process: " + std::string{std::strerror(errno)});
    if (child_ == 0) {
        close(ends[1]);
        become(command, ends[0]);
    }
    close(ends[0]);
    gate_ = ends[1];
}

void Command::release() const {
    [[maybe_unused]] const ssize_t written = write(gate_, "", 1);
    close(gate_);
}

bool Command::ends() {
    if (!has_ended_ && waitpid(child_, &status_, WNOHANG) == child_)
        has_ended_ = true;
    return has_ended_;
}

int Command::status() const {
    return WIFSIGNALED(status_) ? 128 + WTERMSIG(status_) : WEXITSTATUS(status_);
}

} // namespace trace
