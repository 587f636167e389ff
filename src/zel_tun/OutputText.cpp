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
    // Not a buffer that takes nothing: a command that prints, if only a warning, would get SIGPIPE
    // and might end before it has acted. (`ip addr add … nodad` warns for each IPv4 address.)
    if (text_ == nullptr || room() == 1) {
        if (text_ != nullptr)
            *end() = '\0';
        char dropped[256];
        zel_run_command(command.c_str(), dropped, sizeof dropped);
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
