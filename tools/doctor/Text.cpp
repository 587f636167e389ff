#include "Text.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

namespace zel::doctor {

std::string format(const char* pattern, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, pattern);
    const int length = std::vsnprintf(text, sizeof text, pattern, arguments);
    va_end(arguments);
    return {text, std::min(static_cast<std::size_t>(std::max(length, 0)), sizeof text - 1)};
}

std::string first_line(std::string_view text) {
    return std::string(text.substr(0, text.find_first_of("\r\n")));
}

std::string one_line(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::string line = first_line(text);
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        if (!line.empty())
            result += (result.empty() ? "" : "; ") + line;
    }
    return result;
}

} // namespace zel::doctor
