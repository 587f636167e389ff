// The texts that commands and /proc bring back, for libFuzzer and for texts_test. An input is the
// size of the caller's buffer (2 bytes), how commands end (1), how long each output is (1), then
// the outputs of one command after the other.
#include "support/interpose.hpp"
#include "zel_tun/OutputText.hpp"

#include <zelkernel/affinity.h>
#include <zelkernel/system.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

ZEL_INTERPOSE(FILE*, popen, (const char* command, const char* mode), (command, mode))
ZEL_INTERPOSE(int, pclose, (FILE * stream), (stream))
ZEL_INTERPOSE(FILE*, fopen, (const char* path, const char* mode), (path, mode))

namespace {

// A stream that gives `text`; an empty one does not exist for fmemopen.
FILE* stream_of(const std::string& text) {
    return text.empty() ? real::fopen("/dev/null", "r")
                        : fmemopen(const_cast<char*>(text.data()), text.size(), "r");
}

void require(bool held) {
    if (!held)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 4)
        return 0;
    const std::size_t room = (data[0] * std::size_t{256} + data[1]) % 2000;
    const bool close_fails = data[2] % 2 != 0;
    const std::size_t portion = std::size_t{data[3]} * 4 + 1;
    static std::string output; // of the command that runs
    interposed::popen = [](auto...) { return stream_of(output); };
    interposed::pclose = [close_fails](FILE* stream) {
        std::fclose(stream);
        errno = EIO;
        return close_fails ? -1 : 0;
    };

    // Its end is the end of the allocation, so that a sanitizer sees a write behind it.
    std::vector<char> buffer(room, '#');
    zel::network::OutputText text{buffer.data(), room};
    text.clear();
    std::string expected;
    for (const std::uint8_t* at = data + 4; at < data + size; at += output.size()) {
        const auto left = static_cast<std::size_t>(data + size - at);
        output.assign(at, at + std::min(portion, left));
        text.run("command");
        // A NUL hides what follows, of this output and of the report on it.
        expected += output.c_str();
        if (close_fails && output.find('\0') == std::string::npos)
            expected += "\r\npclose() failed; Input/output error\r\n";
    }
    if (room > 0)
        require(buffer.data() == expected.substr(0, room - 1));

    num_processors = 0;
    require(getNumOfCpus() >= 1);
    interposed::popen = nullptr;
    interposed::pclose = nullptr;
    interposed::fopen = [](auto...) { return stream_of(output); };
    output.assign(data + 4, data + size);
    zel_get_total_mem();
    zel_get_free_mem();
    interposed::fopen = nullptr;
    return 0;
}
