#include "StatisticsFile.hpp"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace top {
namespace {

constexpr std::string_view link_prefix = "/memfd:zelkernel-stats";

// The path in /proc of the process's memory file; empty when there is none.
fs::path find_file(const fs::path& process, std::error_code& error) {
    for (fs::directory_iterator entry{process / "fd", error}, end; !error && entry != end;
         entry.increment(error)) {
        std::error_code gone;
        const std::string target = fs::read_symlink(entry->path(), gone).string();
        if (target.starts_with(link_prefix))
            return entry->path();
    }
    return {};
}

fs::path process_directory(pid_t pid) {
    return fs::path{"/proc"} / std::to_string(pid);
}

bool is_large_enough(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && status.st_size >= static_cast<off_t>(sizeof(zel_statistics));
}

Statistics map(int fd) {
    if (!is_large_enough(fd))
        return nullptr;
    void* memory = mmap(nullptr, sizeof(zel_statistics), PROT_READ, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED)
        return nullptr;
    return {static_cast<const zel_statistics*>(memory), [](const zel_statistics* mapped) {
                munmap(const_cast<zel_statistics*>(mapped), sizeof *mapped);
            }};
}

} // namespace

std::vector<pid_t> publishing_processes() {
    std::vector<pid_t> found;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator{"/proc", error}) {
        const std::string name = entry.path().filename().string();
        pid_t pid = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), pid).ec != std::errc{})
            continue;
        std::error_code unreadable;
        if (!find_file(entry.path(), unreadable).empty())
            found.push_back(pid);
    }
    return found;
}

Statistics map_statistics(pid_t pid, std::string& problem) {
    std::error_code error;
    const fs::path file = find_file(process_directory(pid), error);
    const std::string process = "process " + std::to_string(pid);
    if (error) {
        problem = process + ": " + error.message();
        return nullptr;
    }
    if (file.empty()) {
        problem = process + " publishes no counters: start it with ZELKERNEL_STATS=1";
        return nullptr;
    }
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        problem = process + ": " + std::strerror(errno);
        return nullptr;
    }
    Statistics statistics = map(fd);
    close(fd);
    if (statistics == nullptr || statistics->magic != ZEL_STATISTICS_MAGIC ||
        statistics->version != ZEL_STATISTICS_VERSION) {
        problem = process + ": its counters have another form than this program knows";
        return nullptr;
    }
    return statistics;
}

} // namespace top
