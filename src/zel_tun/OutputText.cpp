#include "OutputText.hpp"

#include <zelkernel/system.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace zel::network {

void OutputText::clear() {
    length_ = 0;
    if (text_ != nullptr)
        *text_ = '\0';
}

void OutputText::run(const std::string& command) {
    if (text_ == nullptr) {
        zel_run_command(command.c_str(), nullptr, 0);
        return;
    }
    zel_run_command(command.c_str(), end(), room());
    advance();
}

void OutputText::append(const char* format, ...) {
    if (text_ == nullptr)
        return;
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(end(), room(), format, arguments);
    va_end(arguments);
    advance();
}

void OutputText::advance() {
    length_ += strnlen(end(), room() - 1);
}

} // namespace zel::network
