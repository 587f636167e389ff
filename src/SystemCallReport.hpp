#pragma once

#include "ErrorLine.hpp"

#include <cerrno>

namespace zel {

// Sets errno to a failing call's result, prints the message with its description, and hands the
// result back; does nothing for 0.
inline int report_failure(int result, const char* message) {
    if (result != 0) {
        write_error_line(message, result);
        errno = result;
    }
    return result;
}

} // namespace zel
