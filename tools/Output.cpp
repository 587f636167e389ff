#include "Output.hpp"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

namespace zel::tools {

// Control characters come from tools' output and threads' names; bytes above ASCII pass as they
// are.
std::string json_text(std::string_view text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            result += {'\\', c};
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char code[8];
            std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(c));
            result += code;
        } else {
            result += c;
        }
    }
    return result + '"';
}

void end_with_the_reader() {
    std::signal(SIGPIPE, SIG_DFL);
}

bool is_written(const char* tool) {
    const bool is_flushed = std::fflush(stdout) == 0;
    if (is_flushed && std::ferror(stdout) == 0)
        return true;
    // The reason of an earlier failure is no longer known.
    std::fprintf(stderr, "%s: the output cannot be written%s%s\n", tool, is_flushed ? "" : ": ",
                 is_flushed ? "" : std::strerror(errno));
    return false;
}

} // namespace zel::tools
