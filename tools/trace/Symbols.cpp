#include "Symbols.hpp"

#include "ElfImage.hpp"

#include <cstdlib>
#include <cxxabi.h>
#include <memory>

namespace trace {
namespace {

std::string demangled(const std::string& name) {
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> text{
        abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status), &std::free};
    return status == 0 ? text.get() : name;
}

template<typename Elf>
class Symbols {
public:
    Symbols(const Image& image, std::uint64_t base)
        : image_(image), header_(image.at<typename Elf::Header>(0)),
          base_(header_.e_type == ET_EXEC ? 0 : base) {}

    // The full table has the other's names, too; a stripped file has the other only.
    std::string describe(const std::string& path) const {
        std::string text = list(SHT_SYMTAB);
        if (text.empty())
            text = list(SHT_DYNSYM);
        return "symbols " + std::to_string(base_) + ' ' + path + '\n' + text;
    }

private:
    typename Elf::Section section(std::uint64_t number) const {
        return image_.at<typename Elf::Section>(header_.e_shoff + number * header_.e_shentsize);
    }

    std::string list(unsigned type) const {
        std::string text;
        for (unsigned i = 0; i < header_.e_shnum; ++i) {
            const auto table = section(i);
            if (table.sh_type == type)
                text += list(table);
        }
        return text;
    }

    std::string list(const typename Elf::Section& table) const {
        const std::uint64_t names = section(table.sh_link).sh_offset;
        std::string text;
        for (std::uint64_t at = 0; at < table.sh_size; at += sizeof(typename Elf::Symbol)) {
            const auto symbol = image_.at<typename Elf::Symbol>(table.sh_offset + at);
            const unsigned type = symbol.st_info & 0xf; // the same in both classes
            if ((type == STT_FUNC || type == STT_OBJECT) && symbol.st_shndx != SHN_UNDEF) {
                text += "symbol " + std::to_string(symbol.st_value) + ' ' +
                        std::to_string(symbol.st_size) + ' ' +
                        demangled(image_.text(names + symbol.st_name)) + '\n';
            }
        }
        return text;
    }

    const Image& image_;
    typename Elf::Header header_;
    std::uint64_t base_;
};

} // namespace

std::string describe_symbols(const std::string& path, std::uint64_t base) {
    const Image image{path};
    std::string text;
    read_elf(image, [&](auto elf) { text = Symbols<decltype(elf)>{image, base}.describe(path); });
    return text;
}

} // namespace trace
