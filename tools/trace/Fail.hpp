#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

namespace trace {

enum Status { ok = 0, failed = 1, misused = 2 };

[[noreturn]] inline void fail(const std::string& reason) {
    std::fprintf(stderr, "zelkernel-trace: %s\n", reason.c_str());
    std::exit(failed);
}

} // namespace trace
