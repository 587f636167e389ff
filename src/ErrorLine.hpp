// Lines on standard error.
#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <initializer_list>
#include <string_view>
#include <sys/uio.h>
#include <unistd.h>

namespace zel {

// A number as text.
class Decimal {
public:
    template<typename Integer>
    explicit Decimal(Integer value) : end_(std::to_chars(text_, text_ + sizeof text_, value).ptr) {}
    Decimal(const Decimal&) = delete;
    Decimal& operator=(const Decimal&) = delete;

    operator std::string_view() const { return {text_, static_cast<size_t>(end_ - text_)}; }

private:
    char text_[24]{};
    const char* end_;
};

// Writes the parts (at most 8) with one writev and leaves errno alone. Not stdio: for one line on
// its unbuffered stream it takes 8 KiB of a thread's stack, which has 16 KiB with guard page and
// thread-local storage. This also works with a damaged heap, and the line stays in one piece when
// several threads write.
inline void write_error_line(std::initializer_list<std::string_view> parts) {
    const int kept = errno;
    std::array<iovec, 8> vectors;
    std::transform(parts.begin(), parts.end(), vectors.begin(), [](std::string_view part) {
        return iovec{const_cast<char*>(part.data()), part.size()};
    });
    // A standard error that cannot be written leaves nothing to report that to.
    while (writev(STDERR_FILENO, vectors.data(), static_cast<int>(parts.size())) == -1 &&
           errno == EINTR) {
    }
    errno = kept;
}

// The line that perror() would print for `error`.
inline void write_error_line(const char* message, int error) {
    write_error_line({message, *message == '\0' ? "" : ": ", std::strerror(error), "\n"});
}

} // namespace zel
