#include "ProbePoints.hpp"

#include "ElfImage.hpp"

#include <array>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <regex.h>
#include <sstream>

namespace trace {
namespace {

constexpr std::uint64_t aligned(std::uint64_t size) {
    return (size + 3) & ~std::uint64_t{3};
}

template<typename Elf>
class Reader {
public:
    explicit Reader(const Image& image)
        : image_(image), header_(image.at<typename Elf::Header>(0)) {}

    ProbedFile read() const {
        ProbedFile file;
        for (unsigned i = 0; i < header_.e_shnum; ++i) {
            const auto section = image_.at<typename Elf::Section>(
                header_.e_shoff + std::uint64_t{i} * header_.e_shentsize);
            if (section.sh_type == SHT_NOTE)
                read_notes(section, file.points);
            if (section.sh_type == SHT_DYNSYM)
                file.priorities = find_symbol(section, "kernel_priorities");
        }
        return file;
    }

private:
    void read_notes(const typename Elf::Section& section, std::vector<ProbePoint>& points) const {
        std::uint64_t at = section.sh_offset;
        const std::uint64_t end = at + section.sh_size;
        while (at + sizeof(Elf64_Nhdr) <= end) {
            const auto note = image_.at<Elf64_Nhdr>(at); // the same in both classes
            const std::uint64_t name = at + sizeof note;
            const std::uint64_t content = name + aligned(note.n_namesz);
            constexpr std::uint32_t probe_descriptor = 3;
            if (note.n_type == probe_descriptor && image_.text(name) == "stapsdt")
                read_probe(content, points);
            at = content + aligned(note.n_descsz);
        }
    }

    // Three addresses (the point, a base for prelinking, a semaphore), then provider, name and
    // arguments.
    void read_probe(std::uint64_t content, std::vector<ProbePoint>& points) const {
        const auto address = image_.at<typename Elf::Address>(content);
        const auto semaphore = image_.at<typename Elf::Address>(content + 2 * sizeof address);
        std::uint64_t at = content + 3 * sizeof address;
        const std::string provider = image_.text(at);
        at += provider.size() + 1;
        const std::string name = image_.text(at);
        at += name.size() + 1;
        const std::uint64_t offset = file_offset(address);
        if (provider != "zelkernel")
            return;
        points.push_back({name, offset, semaphore == 0 ? 0 : file_offset(semaphore),
                          image_.text(at), !is_arm() || is_arm_nop(offset)});
    }

    bool is_arm() const { return header_.e_machine == EM_ARM; }

    // Of ARMv6K and later, and of any before.
    bool is_arm_nop(std::uint64_t offset) const {
        const auto instruction = image_.at<std::uint32_t>(offset);
        return offset % 4 == 0 && (instruction == 0xe320f000 || instruction == 0xe1a00000);
    }

    std::uint64_t file_offset(std::uint64_t address) const {
        for (unsigned i = 0; i < header_.e_phnum; ++i) {
            const auto segment = image_.at<typename Elf::Segment>(
                header_.e_phoff + std::uint64_t{i} * header_.e_phentsize);
            if (segment.p_type == PT_LOAD && address >= segment.p_vaddr &&
                address - segment.p_vaddr < segment.p_filesz)
                return address - segment.p_vaddr + segment.p_offset;
        }
        return address;
    }

    std::uint64_t find_symbol(const typename Elf::Section& table, const char* wanted) const {
        const auto names = image_.at<typename Elf::Section>(
            header_.e_shoff + std::uint64_t{table.sh_link} * header_.e_shentsize);
        for (std::uint64_t at = 0; at < table.sh_size; at += sizeof(typename Elf::Symbol)) {
            const auto symbol = image_.at<typename Elf::Symbol>(table.sh_offset + at);
            if (image_.text(names.sh_offset + symbol.st_name) == wanted)
                return symbol.st_value;
        }
        return 0;
    }

    const Image& image_;
    typename Elf::Header header_;
};

// The names of a probe's arguments; one that ends in '$' is a text.
const std::map<std::string, std::vector<std::string>, std::less<>> argument_names{
    {"call_begin", {"function", "argument"}},
    {"pulse", {"source"}},
    {"service_begin", {"vector"}},
    {"service_end", {"vector"}},
    {"defer", {"routine"}},
    {"deferred_begin", {"routine"}},
    {"deferred_end", {"routine"}},
    {"thread_created", {"routine", "argument"}},
    {"thread_begin", {"routine", "argument"}},
    {"thread_named", {"thread", "text$"}},
    {"packet_read", {"version", "index", "bytes"}},
    {"packet_sent", {"version", "index", "bytes"}},
    {"lock_wait", {"mutex"}},
    {"lock_taken", {"mutex"}},
    {"command_begin", {"text$"}},
};

// A regular expression of POSIX: the C++ library's would be half of this program.
class Pattern {
public:
    explicit Pattern(const char* text) { regcomp(&compiled_, text, REG_EXTENDED); }
    ~Pattern() { regfree(&compiled_); }
    Pattern(const Pattern&) = delete;
    Pattern& operator=(const Pattern&) = delete;

    using Groups = std::array<std::string, 4>;

    // The whole first match and its groups; a group that took no part is empty.
    std::optional<Groups> in(const std::string& text) const {
        std::array<regmatch_t, std::tuple_size_v<Groups>> found;
        if (regexec(&compiled_, text.c_str(), found.size(), found.data(), 0) != 0)
            return {};
        Groups groups;
        for (size_t i = 0; i < found.size(); ++i) {
            const auto& [from, to] = found[i];
            if (from != -1)
                groups[i] = text.substr(static_cast<size_t>(from), static_cast<size_t>(to - from));
        }
        return groups;
    }

private:
    regex_t compiled_;
};

// x86: %rdi, %edi and %dil are %di to the kernel; %r8d is %r8.
std::string register_name(const std::string& name) {
    static const Pattern numbered{"^(r[0-9]+)[dwb]$"};
    static const Pattern wide{"^[re]([a-z]{2})$"};
    static const Pattern byte{"^([sd]i|[sb]p)l?$"};
    static const Pattern byte_of_letter{"^([abcd])l$"};
    for (const Pattern* pattern : {&numbered, &wide, &byte}) {
        if (const auto match = pattern->in(name))
            return (*match)[1];
    }
    const auto match = byte_of_letter.in(name);
    return match ? (*match)[1] + "x" : name;
}

std::string offset_of(const std::string& text) {
    if (text.empty())
        return "+0";
    return text.front() == '-' ? text : "+" + text;
}

// An operand as a fetch argument; empty when there is none like it.
std::string fetch(const std::string& operand) {
    static const Pattern x86_register{"^%([a-z0-9]+)$"};
    static const Pattern x86_memory{"^(-?[0-9]*)\\(%([a-z0-9]+)\\)$"};
    static const Pattern arm_register{"^(r[0-9]+|fp|ip|sp|lr)$"};
    static const Pattern arm_memory{"^\\[([a-z0-9]+)(, ?#(-?[0-9]+))?\\]$"};
    static const Pattern constant{"^[$#](-?[0-9]+)$"};
    if (const auto match = x86_register.in(operand))
        return "%" + register_name((*match)[1]);
    if (const auto match = x86_memory.in(operand))
        return offset_of((*match)[1]) + "(%" + register_name((*match)[2]) + ")";
    if (arm_register.in(operand))
        return "%" + operand;
    if (const auto match = arm_memory.in(operand))
        return offset_of((*match)[3]) + "(%" + (*match)[1] + ")";
    if (const auto match = constant.in(operand))
        return "\\" + (*match)[1];
    return {};
}

// "-4" is four bytes with a sign.
std::string type_of(const std::string& size) {
    const bool is_signed = size.front() == '-';
    return std::string{is_signed ? "s" : "u"} +
           std::to_string(8 * std::abs(std::atoi(size.c_str())));
}

} // namespace

ProbedFile read_probed_file(const std::string& path) {
    const Image image{path};
    ProbedFile file;
    read_elf(image, [&](auto elf) { file = Reader<decltype(elf)>{image}.read(); });
    return file;
}

std::string reference_counter(const ProbePoint& point) {
    if (point.semaphore == 0)
        return {};
    std::ostringstream text;
    text << "(0x" << std::hex << point.semaphore << ')';
    return text.str();
}

std::string fetch_arguments(const ProbePoint& point) {
    static const Pattern argument{"(-?[0-9]+)@(\\[[^]]*\\]|[^ ]+)"};
    const auto names = argument_names.find(point.name);
    if (names == argument_names.end())
        return {};
    std::string result, rest = point.arguments;
    for (const std::string& name : names->second) {
        const auto match = argument.in(rest);
        if (!match)
            break;
        rest.erase(0, rest.find((*match)[0]) + (*match)[0].size());
        const std::string value = fetch((*match)[2]);
        if (value.empty())
            continue;
        if (name.back() == '$') {
            result += " " + name.substr(0, name.size() - 1) + "=+0(" + value + "):string";
            continue;
        }
        result += " " + name + "=";
        result += value + ":" + type_of((*match)[1]);
        // glibc notes a mutex's owner behind the lock word and the count.
        if (name == "mutex")
            result += " owner=+8(" + value + "):u32";
    }
    return result;
}

} // namespace trace
