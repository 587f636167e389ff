#include "soak_resources.hpp"

#include "checks.hpp"
#include "private_machine.hpp"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <malloc.h>
#include <net/if.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>
#include <zelkernel/threads.h>

namespace soak {

namespace {

constexpr std::size_t heap_margin = std::size_t{64} * 1024;

int entries_of(const char* directory) {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator{directory}, {}));
}

int network_devices() {
    struct if_nameindex* const all = if_nameindex();
    int count = 0;
    while (all != nullptr && all[count].if_index != 0) {
        ++count;
    }
    if_freenameindex(all);
    return count;
}

int registered() {
    std::vector<pthread_t> ids(1000);
    unsigned count = 0;
    getCopyOfCurrentPthreadIds(ids.data(), static_cast<unsigned>(ids.size()), &count);
    return static_cast<int>(count);
}

} // namespace

Resources resources_now() {
    siginfo_t child{};
    const bool has_children = waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT) == 0;
    return {entries_of("/proc/self/fd"),
            entries_of("/proc/self/task"),
            registered(),
            named_namespaces(),
            network_devices(),
            has_children,
            mallinfo2().uordblks};
}

bool is_back_at(const Resources& start, const Resources& now) {
    return now.descriptors == start.descriptors && now.threads == start.threads &&
           now.registered_threads == start.registered_threads &&
           now.namespaces == start.namespaces && now.devices == start.devices &&
           !now.has_children && now.heap <= start.heap + heap_margin;
}

std::string difference(const Resources& start, const Resources& now) {
    return text("descriptors %d (%d at the start), threads %d (%d), registered %d (%d), "
                "namespaces %d (%d), devices %d (%d), child processes %s, heap %zu KiB (%zu)",
                now.descriptors, start.descriptors, now.threads, start.threads,
                now.registered_threads, start.registered_threads, now.namespaces, start.namespaces,
                now.devices, start.devices, now.has_children ? "left" : "none", now.heap / 1024,
                start.heap / 1024);
}

std::size_t resident_memory() {
    std::ifstream file("/proc/self/statm");
    std::size_t size = 0, resident = 0;
    file >> size >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

} // namespace soak
