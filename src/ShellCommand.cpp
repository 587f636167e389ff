// zel_run_command: the shell commands of the network module.
#include <zelkernel/system.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

// Reads until the end of the stream or until `room` characters are stored. A signal handler of the
// application without SA_RESTART must not cut the text short.
size_t capture(FILE* stream, char* output, size_t room) {
    size_t length = 0;
    while (length < room) {
        length += std::fread(output + length, 1, room - length, stream);
        if (!std::ferror(stream) || errno != EINTR)
            break;
        std::clearerr(stream);
    }
    return length;
}

} // namespace

int zel_run_command(const char* command, char* output, size_t output_size) {
    FILE* stream = popen(command, "re");
    if (stream == nullptr) {
        if (output == nullptr)
            return 0;
        return std::snprintf(output, output_size, "popen() failed; %s\r\n", std::strerror(errno));
    }
    if (output == nullptr || output_size == 0)
        return pclose(stream);
    const size_t length = capture(stream, output, output_size - 1);
    output[length] = '\0';
    const int status = pclose(stream);
    if (status != -1)
        return status;
    return std::snprintf(output + length, output_size - length, "\r\npclose() failed; %s\r\n",
                         std::strerror(errno));
}
