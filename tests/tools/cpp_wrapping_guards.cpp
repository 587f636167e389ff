// The C++ runtime's guard of local static objects, counted. In a file of its own: the linker
// redirects only what an object does not define itself.
#include <atomic>

namespace {
std::atomic<int> count;
}

extern "C" int __cxa_guard_acquire(const unsigned char* guard);

int __cxa_guard_acquire(const unsigned char* guard) {
    ++count;
    return __atomic_load_n(guard, __ATOMIC_ACQUIRE) == 0;
}

int guards_outside_the_library() {
    return count;
}
