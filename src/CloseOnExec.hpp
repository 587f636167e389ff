// Descriptors that no command of ours may inherit.
#pragma once

#include <cstdio>
#include <fcntl.h>

namespace zel {

// Marked after the opening rather than with the flag "e": a stand-in for popen() or fopen() of the
// application's own need not know that extension of glibc.
inline FILE* close_on_exec(FILE* stream) {
    if (stream != nullptr)
        fcntl(fileno(stream), F_SETFD, FD_CLOEXEC);
    return stream;
}

} // namespace zel
