#pragma once

#include <zelkernel/locks.h>

namespace zel {

// The switch is a plain byte for the application; relaxed accesses make reading it while another
// thread turns it well defined, and cost nothing.
inline bool posix_locks_are_on() {
    return __atomic_load_n(&posix_locks_enabled, __ATOMIC_RELAXED) != 0;
}

} // namespace zel
