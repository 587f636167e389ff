#pragma once

#include <cerrno>
#include <cstdio>

namespace zel {

// Sets errno to a failing call's result, prints the message with its description, and hands the
// result back; does nothing for 0.
inline int report_failure(int result, const char* message) {
    if (result != 0) {
        errno = result;
        std::perror(message);
    }
    return result;
}

} // namespace zel
