// zel_run_command: the shell commands of the network module.
#include "CloseOnExec.hpp"
#include "Probes.hpp"

#include <zelkernel/system.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sched.h>
#include <utility>

namespace {

// Opens the other processors to a thread that is kept on one, for its scope, and so to the command
// that it starts there. Linux frees what an ended process leaves behind in the time of whichever
// thread leaves the kernel next on that processor: of a sender of packets, 100 us and more.
class AllProcessors {
public:
    AllProcessors() {
        if (sched_getaffinity(0, sizeof own_, &own_) != 0 || CPU_COUNT(&own_) != 1)
            return;
        cpu_set_t all;
        std::memset(&all, 0xff, sizeof all);
        is_open_ = sched_setaffinity(0, sizeof all, &all) == 0;
    }
    ~AllProcessors() {
        const int kept = errno; // popen()'s
        if (is_open_)
            sched_setaffinity(0, sizeof own_, &own_);
        errno = kept;
    }
    AllProcessors(const AllProcessors&) = delete;
    AllProcessors& operator=(const AllProcessors&) = delete;

private:
    cpu_set_t own_;
    bool is_open_ = false;
};

// The calls on the stream are cancellation points: a thread that is cancelled there leaves neither
// the descriptor nor the command's process behind.
class Command {
public:
    explicit Command(const char* text) {
        ZEL_PROBE(command_begin, text);
        const AllProcessors open;
        stream_ = zel::close_on_exec(popen(text, "r"));
    }
    ~Command() {
        if (stream_ != nullptr)
            pclose(stream_);
        ZEL_PROBE(command_end);
    }
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    FILE* stream() const { return stream_; }
    int close() { return pclose(std::exchange(stream_, nullptr)); }

private:
    FILE* stream_ = nullptr;
};

// Reads until the end of the stream or until `room` characters are stored. A signal handler of the
// application without SA_RESTART must not cut the text short. Without a buffer of the stream's own:
// an exit() of another thread takes that away under the thread that reads into it.
size_t capture(FILE* stream, char* output, size_t room) {
    std::setvbuf(stream, nullptr, _IONBF, 0);
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
    Command running{command};
    if (running.stream() == nullptr) {
        if (output == nullptr)
            return 0;
        return std::snprintf(output, output_size, "popen() failed; %s\r\n", std::strerror(errno));
    }
    if (output == nullptr || output_size == 0)
        return running.close();
    const size_t length = capture(running.stream(), output, output_size - 1);
    output[length] = '\0';
    const int status = running.close();
    if (status != -1)
        return status;
    return std::snprintf(output + length, output_size - length, "\r\npclose() failed; %s\r\n",
                         std::strerror(errno));
}
