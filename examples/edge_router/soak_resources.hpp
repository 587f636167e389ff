// What the process holds of the machine.
#pragma once

#include <cstddef>
#include <string>

namespace soak {

struct Resources {
    int descriptors;
    int threads;
    int registered_threads;
    int namespaces;
    int devices; // network devices in the process's own namespace
    bool has_children;
    std::size_t heap; // bytes in use
};
Resources resources_now();

// Whether nothing has been added, but for the heap: it may have grown by a few stdio buffers and
// the like.
bool is_back_at(const Resources& start, const Resources& now);

std::string difference(const Resources& start, const Resources& now);

// Bytes of memory that the process has in RAM.
std::size_t resident_memory();

} // namespace soak
