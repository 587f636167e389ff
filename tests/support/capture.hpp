#pragma once

#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

namespace zel::test {

// Collects what the process and its children write to a descriptor, until text() or the end of the
// scope puts the descriptor back.
class Capture {
public:
    explicit Capture(int fd)
        : fd_(fd), saved_(fcntl(fd, F_DUPFD_CLOEXEC, 0)),
          file_(memfd_create("capture", MFD_CLOEXEC)) {
        std::fflush(nullptr);
        dup2(file_, fd_);
    }
    ~Capture() {
        restore();
        close(file_);
    }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    std::string text() {
        restore();
        std::string result(static_cast<size_t>(lseek(file_, 0, SEEK_END)), '\0');
        const ssize_t length = pread(file_, result.data(), result.size(), 0);
        result.resize(static_cast<size_t>(length > 0 ? length : 0));
        return result;
    }

private:
    void restore() {
        if (saved_ == -1)
            return;
        std::fflush(nullptr);
        dup2(saved_, fd_);
        close(saved_);
        saved_ = -1;
    }

    int fd_, saved_, file_;
};

// What `action` makes the process print on a descriptor.
template<typename Action>
std::string printed_on(int fd, Action action) {
    Capture capture{fd};
    action();
    return capture.text();
}

} // namespace zel::test
