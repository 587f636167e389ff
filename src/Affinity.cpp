// Processor count and the calling thread's processors.
#include "CloseOnExec.hpp"

#include <zelkernel/affinity.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <sched.h>

extern "C" {
int32_t num_processors;
}

namespace {

// A signal handler of the application without SA_RESTART must not hide a line: what is read is kept
// for ever.
bool read_line(char* line, int size, FILE* stream) {
    while (std::fgets(line, size, stream) == nullptr) {
        if (!std::ferror(stream) || errno != EINTR)
            return false;
        std::clearerr(stream);
    }
    return true;
}

// The last line that `command` prints, as a number; 0 when it prints none.
int last_number_of(const char* command) {
    FILE* stream = zel::close_on_exec(popen(command, "r"));
    if (stream == nullptr)
        std::exit(1);
    char line[128];
    long number = 0;
    while (read_line(line, sizeof line, stream))
        number = std::strtol(line, nullptr, 10);
    pclose(stream);
    return static_cast<int>(number);
}

int cached_count() {
    return __atomic_load_n(&num_processors, __ATOMIC_RELAXED);
}

} // namespace

int getNumOfCpus() {
    if (const int known = cached_count())
        return known;
    const int count = std::max(1, last_number_of("grep -c processor /proc/cpuinfo"));
    __atomic_store_n(&num_processors, count, __ATOMIC_RELAXED);
    return count;
}

int setThreadAffinityCPU(int cpu) {
    const int count = getNumOfCpus();
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu >= 0) {
        CPU_SET(static_cast<size_t>(cpu % count), &set);
    } else {
        for (int i = 0; i < count; ++i)
            CPU_SET(static_cast<size_t>(i), &set);
    }
    return pthread_setaffinity_np(pthread_self(), sizeof set, &set);
}

int setThreadAffinityAllCpus() {
    return setThreadAffinityCPU(-1);
}

int setThreadAffinityCPU0() {
    return setThreadAffinityCPU(0);
}

uint32_t getThreadAffinityCPU() {
    cpu_set_t set;
    if (pthread_getaffinity_np(pthread_self(), sizeof set, &set) != 0)
        return 0;
    uint32_t bits = 0;
    for (int cpu = 0; cpu < std::min(cached_count(), 32); ++cpu) {
        if (CPU_ISSET(static_cast<size_t>(cpu), &set))
            bits |= uint32_t{1} << cpu;
    }
    return bits;
}
