#include "soak_watch.hpp"

#include <pthread.h>
#include <unistd.h>

namespace soak {

namespace {

constexpr unsigned most_reported = 20;

std::atomic<bool> is_stopping{false};
std::atomic<bool> is_cut_short{false};
std::atomic<unsigned> count{0};

} // namespace

Figures figures;

void stop(bool cut_short) {
    is_cut_short = cut_short;
    is_stopping = true;
}

bool stopping() {
    return is_stopping;
}

// One write: the callers are many, and some have no stack for stdio.
void fault(const std::string& what) {
    if (is_cut_short || ++count > most_reported) {
        return;
    }
    const std::string line = "soak: FAULT: " + what + "\n";
    [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, line.data(), line.size());
}

unsigned faults() {
    return count;
}

} // namespace soak
