#pragma once

#include <cstdlib>
#include <string>

namespace zel::test {

// True under the user-mode emulator (qemu-arm), which passes system calls on to the host's kernel
// and lacks some of them. A case that needs one of those is skipped there by name with the reason;
// it runs on the emulated board (scripts/board), which has a kernel of its own.
inline bool running_under_user_emulation() {
    return std::getenv("ZEL_USER_EMULATION") != nullptr;
}

// For EXPECT_EXIT of a process that is aborted: it printed `lines` and nothing else. The emulator
// adds a line of its own.
inline std::string prints_only(const std::string& lines) {
    return "^" + lines + "(qemu: [^\n]*\n)?$";
}

} // namespace zel::test
