// Memory from /proc/meminfo, the kernel's uptime, and the library's version.
#include "CloseOnExec.hpp"
#include "Uptime.hpp"

#include <zelkernel/system.h>
#include <zelkernel/version.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

namespace {

struct FileCloser {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, FileCloser>;

constexpr int line_size = 100;

File open_meminfo() {
    File file{zel::close_on_exec(std::fopen("/proc/meminfo", "r"))};
    if (!file)
        std::printf("Failed to open file /proc/meminfo\n");
    return file;
}

// The value of a line "Key:   123 kB" in bytes; bounded, so that two of them can be added.
int64_t bytes_of(const char* key) {
    constexpr int64_t most_kilobytes = std::numeric_limits<int64_t>::max() / 2048;
    const char* colon = std::strchr(key, ':');
    if (colon == nullptr || colon[1] == '\0')
        return 0;
    const int64_t kilobytes = std::strtol(colon + 2, nullptr, 10);
    return std::clamp(kilobytes, -most_kilobytes, most_kilobytes) * 1024;
}

} // namespace

uint64_t zel_get_total_mem() {
    const File file = open_meminfo();
    if (!file)
        return 0;
    char line[line_size];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        if (const char* key = std::strstr(line, "MemTotal"))
            return static_cast<uint64_t>(bytes_of(key));
    }
    return 0;
}

int64_t zel_get_free_mem() {
    const File file = open_meminfo();
    if (!file)
        return 0;
    char line[line_size];
    int64_t sum = 0;
    int found = 0;
    while (found < 2 && std::fgets(line, sizeof line, file.get()) != nullptr) {
        const char* key = std::strstr(line, "MemFree:");
        if (key == nullptr)
            key = std::strstr(line, "Inactive:");
        if (key == nullptr)
            continue;
        sum += bytes_of(key);
        ++found;
    }
    return sum;
}

int zel_get_uptime(timespec* ts) {
    return zel::read_uptime(ts);
}

int64_t zel_get_starttime_in_ns() {
    return starttimeInNs;
}

int zel_version() {
    return ZEL_VERSION;
}
