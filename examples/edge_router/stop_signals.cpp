#include "stop_signals.hpp"

#include <csignal>
#include <initializer_list>
#include <pthread.h>
#include <time.h>

namespace {

bool requested = false;

sigset_t stop_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&signals, signal);
    }
    return signals;
}

} // namespace

void block_stop_signals() {
    const sigset_t signals = stop_signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

bool stop_requested() {
    return stop_requested_within(0);
}

bool stop_requested_within(long milliseconds) {
    const sigset_t signals = stop_signals();
    const timespec patience{.tv_sec = 0, .tv_nsec = milliseconds * 1'000'000};
    requested = requested || sigtimedwait(&signals, nullptr, &patience) > 0;
    return requested;
}
