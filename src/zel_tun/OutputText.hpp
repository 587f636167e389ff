#pragma once

#include <cstddef>
#include <new>
#include <string>

namespace zel::network {

// The caller's text buffer, which is all that a network operation reports into. What an operation
// writes first replaces the old content, everything later goes to the end of the text. A null or
// empty buffer drops all; nothing is written beyond the buffer, and the text is always terminated.
class OutputText {
public:
    OutputText(char* text, std::size_t size) : text_(size == 0 ? nullptr : text), size_(size) {}

    void clear();

    // Runs a shell command; its output becomes part of the text.
    void run(const std::string& command);

    [[gnu::format(printf, 2, 3)]] void append(const char* format, ...);

private:
    void advance();
    char* end() const { return text_ + length_; }
    std::size_t room() const { return size_ - length_; }

    char* text_;
    std::size_t size_;
    std::size_t length_ = 0;
};

// Runs `operation(OutputText&)` on behalf of a function that C code calls: no exception may leave.
template<typename Operation>
void report_into(char* output, std::size_t output_size, Operation operation) {
    OutputText text{output, output_size};
    try {
        operation(text);
    } catch (const std::bad_alloc&) {
        text.append("Out of memory.\r\n");
    }
}

} // namespace zel::network
