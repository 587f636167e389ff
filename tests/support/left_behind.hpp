// What an operation that fails or ends must not leave behind.
#pragma once

#include <zelkernel/threads.h>

#include <filesystem>
#include <string>

namespace zel::test {

// The process's open files whose names contain a text.
inline int open_files(const char* part = "") {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator{"/proc/self/fd"}) {
        std::error_code closed_meanwhile;
        const auto name = std::filesystem::read_symlink(entry, closed_meanwhile).string();
        count += name.find(part) != std::string::npos;
    }
    return count;
}

// How many threads (of at most 64) are in the registry.
inline unsigned int registered_threads() {
    pthread_t ids[64];
    unsigned int count = 99;
    getCopyOfCurrentPthreadIds(ids, 64, &count);
    return count;
}

} // namespace zel::test
