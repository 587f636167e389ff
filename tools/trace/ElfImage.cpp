#include "ElfImage.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace trace {

Image::Image(const std::string& path) {
    struct stat before {};
    if (stat(path.c_str(), &before) != 0 || !S_ISREG(before.st_mode))
        return;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat file {};
    if (fd != -1 && fstat(fd, &file) == 0 && file.st_size > 0) {
        const auto size = static_cast<size_t>(file.st_size);
        void* const start = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (start != MAP_FAILED) {
            start_ = static_cast<const char*>(start);
            size_ = size;
        }
    }
    if (fd != -1)
        close(fd);
}

Image::~Image() {
    if (size_ != 0)
        munmap(const_cast<char*>(start_), size_);
}

} // namespace trace
