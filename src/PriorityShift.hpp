// Arithmetic between the application's priorities and Linux's. Two's complement without overflow
// traps: the words come from the application and are not checked.
#pragma once

#include <zelkernel/kernel.h>

namespace zel {

inline int wrapping_add(int a, int b) {
    return static_cast<int>(static_cast<unsigned>(a) + static_cast<unsigned>(b));
}

inline int wrapping_subtract(int a, int b) {
    return static_cast<int>(static_cast<unsigned>(a) - static_cast<unsigned>(b));
}

inline int priority_shift() {
    return wrapping_subtract(kernel_priorities.app_base_priority,
                             kernel_priorities.linux_base_priority);
}

inline int to_linux_priority(int application_priority) {
    return wrapping_subtract(application_priority, priority_shift());
}

inline int to_application_priority(int linux_priority) {
    return wrapping_add(linux_priority, priority_shift());
}

} // namespace zel
