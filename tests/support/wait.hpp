#pragma once

#include <chrono>
#include <csignal>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace zel::test {

// Waits for a condition that other threads or processes bring about; false when it does not come.
// The limit is for what never comes: a dozen of ip's and iptables' commands take half a minute on
// an emulated board.
template<typename Condition>
bool eventually(Condition condition, std::chrono::seconds limit = std::chrono::seconds{100}) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds{1});
    }
    return true;
}

// How a child that ran `action` ended; 0 when it came to its end, -1 when it had to be killed.
template<typename Action>
int status_of_child(Action action) {
    const pid_t child = fork();
    if (child == 0) {
        action();
        _exit(0);
    }
    int status = -1;
    if (!eventually([&] { return waitpid(child, &status, WNOHANG) == child; }))
        kill(child, SIGKILL);
    return status;
}

// From now on the process's calls are interrupted every few milliseconds.
inline void interrupt_calls(void (*handler)(int) = [](int) {}) {
    struct sigaction action {};
    action.sa_handler = handler; // without SA_RESTART
    sigaction(SIGALRM, &action, nullptr);
    const itimerval often{{0, 2000}, {0, 2000}};
    setitimer(ITIMER_REAL, &often, nullptr);
}

} // namespace zel::test
