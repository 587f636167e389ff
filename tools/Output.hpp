// What the programs here print.
#pragma once

#include <string>
#include <string_view>

namespace zel::tools {

std::string json_text(std::string_view text);

// To be called first: a program whose reader has gone, as `head` does, ends without a word, even
// when it was started by one that ignores SIGPIPE, as service managers do.
void end_with_the_reader();

// Whether all that was printed has been written; says so if not.
bool is_written(const char* tool);

} // namespace zel::tools
