// An ELF file of either word size, whatever ours is.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <elf.h>
#include <string>

namespace trace {

struct Elf32 {
    using Header = Elf32_Ehdr;
    using Section = Elf32_Shdr;
    using Segment = Elf32_Phdr;
    using Symbol = Elf32_Sym;
    using Address = Elf32_Addr;
};
struct Elf64 {
    using Header = Elf64_Ehdr;
    using Section = Elf64_Shdr;
    using Segment = Elf64_Phdr;
    using Symbol = Elf64_Sym;
    using Address = Elf64_Addr;
};

// A file's bytes, mapped: applications can be large. What lies beyond its end reads as zeros and
// empty texts, as does all of what is no regular file: to read from a device may block, or act.
class Image {
public:
    explicit Image(const std::string& path);
    ~Image();
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    template<typename T>
    T at(std::uint64_t offset) const {
        T value{};
        if (offset < size_ && size_ - offset >= sizeof value)
            std::memcpy(&value, start_ + offset, sizeof value);
        return value;
    }
    std::string text(std::uint64_t offset) const {
        if (offset >= size_)
            return {};
        const auto start = static_cast<size_t>(offset); // within the file's size
        return {start_ + start, strnlen(start_ + start, size_ - start)};
    }

private:
    const char* start_ = nullptr;
    size_t size_ = 0;
};

// Calls read() with an object of the file's class; false when it is no ELF file.
template<typename Read>
bool read_elf(const Image& image, Read read) {
    const auto ident = image.at<std::array<unsigned char, EI_NIDENT>>(0);
    if (std::memcmp(ident.data(), ELFMAG, SELFMAG) != 0)
        return false;
    if (ident[EI_CLASS] == ELFCLASS32) {
        read(Elf32{});
    } else {
        read(Elf64{});
    }
    return true;
}

} // namespace trace
