// An ELF file of either word size, whatever ours is.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <elf.h>
#include <fstream>
#include <iterator>
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

// A file's bytes; what lies beyond its end reads as zeros and empty texts.
class Image {
public:
    explicit Image(const std::string& path) {
        std::ifstream file{path, std::ios::binary};
        bytes_.assign(std::istreambuf_iterator<char>{file}, {});
    }

    template<typename T>
    T at(std::uint64_t offset) const {
        T value{};
        if (offset < bytes_.size() && bytes_.size() - offset >= sizeof value)
            std::memcpy(&value, bytes_.data() + offset, sizeof value);
        return value;
    }
    std::string text(std::uint64_t offset) const {
        if (offset >= bytes_.size())
            return {};
        const auto start = static_cast<size_t>(offset); // within the file's size
        return {bytes_.data() + start, strnlen(bytes_.data() + start, bytes_.size() - start)};
    }

private:
    std::string bytes_;
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
