// printf into a std::string, and text between its parts.
#pragma once

#include <string>
#include <string_view>

namespace zel::doctor {

[[gnu::format(printf, 1, 2)]] std::string format(const char* pattern, ...);

std::string first_line(std::string_view text);

// The lines of the text, with "; " between them.
std::string one_line(std::string_view text);

} // namespace zel::doctor
