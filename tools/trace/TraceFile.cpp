#include "TraceFile.hpp"

#include "Tracefs.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/types.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace trace {
namespace {

constexpr std::array<std::uint32_t, 16> crc_table() {
    std::array<std::uint32_t, 16> table{};
    for (std::uint32_t i = 0; i != 16; ++i) {
        table[i] = i;
        for (int bit = 0; bit != 4; ++bit)
            table[i] = (table[i] >> 1) ^ ((table[i] & 1) != 0 ? 0xedb88320 : 0);
    }
    return table;
}

// The CRC-32 of Ethernet and zip (polynomial 0x04c11db7, least bit first), half a byte at a time:
// nothing beside the copying of a recording, and a table of 16 words.
class Checksum {
public:
    void add(const unsigned char* data, size_t size) {
        for (size_t at = 0; at < size; ++at) {
            step(data[at]);
            step(data[at] >> 4);
        }
    }
    std::uint32_t value() const { return ~rest_; }

private:
    void step(unsigned half) { rest_ = (rest_ >> 4) ^ table_[(rest_ ^ half) & 15]; }

    static constexpr std::array<std::uint32_t, 16> table_ = crc_table();
    std::uint32_t rest_ = ~std::uint32_t{0};
};

// Numbers are written as this machine has them; the header says how that is.
class Output {
public:
    explicit Output(const std::string& path) : file_(std::fopen(path.c_str(), "w+be")) {}
    ~Output() {
        if (file_ != nullptr)
            std::fclose(file_);
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    bool is_open() const { return file_ != nullptr; }
    void bytes(const void* data, size_t size) { std::fwrite(data, 1, size, file_); }
    void bytes(const std::string& text) { bytes(text.data(), text.size()); }
    void text(const std::string& value) { bytes(value.c_str(), value.size() + 1); }
    template<typename T>
    void number(T value) {
        bytes(&value, sizeof value);
    }
    void sized(const std::string& content) {
        number<std::uint64_t>(content.size());
        bytes(content);
    }
    void pad_to(std::uint64_t position) {
        while (tell() < position)
            std::fputc(0, file_);
    }
    std::uint64_t tell() const { return static_cast<std::uint64_t>(ftello(file_)); }
    void seek(std::uint64_t position) { fseeko(file_, static_cast<off_t>(position), SEEK_SET); }
    // Of all that has been written, which is read back: its order was not that of the file.
    std::uint32_t checksum() {
        Checksum sum;
        std::array<unsigned char, 4096> some;
        seek(0);
        while (const size_t size = std::fread(some.data(), 1, some.size(), file_))
            sum.add(some.data(), size);
        fseeko(file_, 0, SEEK_END);
        return sum.value();
    }
    bool finish() {
        const bool good = std::fflush(file_) == 0 && std::ferror(file_) == 0;
        const int problem = errno;
        const bool closed = std::fclose(file_) == 0;
        file_ = nullptr;
        if (!good)
            errno = problem;
        return good && closed;
    }

private:
    std::FILE* file_;
};

std::vector<std::string> directories_in(const std::string& path) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator{path, error}) {
        if (entry.is_directory())
            names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The size of `commit` in the pages' header is the kernel's word size.
std::uint8_t kernel_word_size(const std::string& page_header) {
    const auto field = page_header.find("commit;");
    const auto size = page_header.find("size:", field);
    return size == std::string::npos ? 8 : static_cast<std::uint8_t>(page_header[size + 5] - '0');
}

// `events` is the directory of a system's events.
void write_formats(Output& output, const std::string& events) {
    const auto names = directories_in(events);
    output.number(static_cast<std::uint32_t>(names.size()));
    for (const std::string& name : names)
        output.sized(read_file(std::string{events}.append("/").append(name).append("/format")));
}

void write_header(Output& output, const std::string& instance, const std::string& group) {
    const std::string events = tracefs + "/events";
    const std::string page_header = read_file(events + "/header_page");
    output.bytes("\x17\x08\x44tracing");
    output.text("6");
    output.number<char>(std::endian::native == std::endian::big ? 1 : 0);
    output.number(kernel_word_size(page_header));
    output.number(static_cast<std::uint32_t>(sysconf(_SC_PAGESIZE)));
    output.text("header_page");
    output.sized(page_header);
    output.text("header_event");
    output.sized(read_file(events + "/header_event"));
    write_formats(output, events + "/ftrace");
    const std::string systems[] = {"sched", "timer", "irq", group};
    output.number(static_cast<std::uint32_t>(std::size(systems)));
    for (const std::string& system : systems) {
        output.text(system == group ? "zelkernel" : system);
        write_formats(output, std::string{events}.append("/").append(system));
    }
    output.number<std::uint32_t>(0); // symbols of the kernel
    output.number<std::uint32_t>(0); // formats of its printk
    output.sized(read_file(instance + "/saved_cmdlines"));
}

void copy_pages(Output& output, const std::string& pipe) {
    const int fd = open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd == -1)
        return;
    const auto page_size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    std::vector<char> page(page_size);
    while (read(fd, page.data(), page_size) > 0) {
        output.bytes(page.data(), page_size);
        std::fill(page.begin(), page.end(), 0);
    }
    close(fd);
}

void write_buffers(Output& output, const std::string& instance) {
    const auto page_size = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    const auto processors = std::max<size_t>(1, directories_in(instance + "/per_cpu").size());
    output.number(static_cast<std::uint32_t>(processors));
    output.bytes("options  ", 10);
    output.number<std::uint16_t>(0);
    output.bytes("flyrecord", 10);
    const std::uint64_t table = output.tell();
    struct Place {
        std::uint64_t offset, size;
    };
    std::vector<Place> places(processors);
    output.bytes(places.data(), places.size() * sizeof places[0]);
    for (size_t i = 0; i < processors; ++i) {
        output.pad_to((output.tell() + page_size - 1) / page_size * page_size);
        const std::uint64_t offset = output.tell();
        copy_pages(output, instance + "/per_cpu/cpu" + std::to_string(i) + "/trace_pipe_raw");
        places[i] = {offset, output.tell() - offset};
    }
    const std::uint64_t end = output.tell();
    output.seek(table);
    output.bytes(places.data(), places.size() * sizeof places[0]);
    output.seek(end);
}

void least_byte_first(Output& output, std::uint64_t value, unsigned bytes) {
    for (unsigned byte = 0; byte < bytes; ++byte)
        output.number(static_cast<unsigned char>(value >> (8 * byte)));
}

void write_facts(Output& output, const std::string& facts) {
    output.bytes(facts);
    least_byte_first(output, facts.size(), 8);
    least_byte_first(output, output.checksum(), 4);
    output.bytes("zeltrace");
}

} // namespace

bool can_be_written(const std::string& path) {
    const bool is_there = access(path.c_str(), F_OK) == 0;
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0666);
    if (fd == -1)
        return false;
    const bool can_seek = lseek(fd, 0, SEEK_CUR) == 0;
    const int problem = errno;
    close(fd);
    if (!is_there)
        unlink(path.c_str());
    errno = problem;
    return can_seek;
}

bool write_trace_file(const std::string& path, const std::string& instance,
                      const std::string& group, const std::string& facts) {
    Output output{path};
    if (!output.is_open())
        return false;
    write_header(output, instance, group);
    write_buffers(output, instance);
    write_facts(output, facts);
    if (output.finish())
        return true;
    const int problem = errno;
    std::error_code error;
    if (fs::is_regular_file(path, error)) // half of one is of no use, and fills the disk
        unlink(path.c_str());
    errno = problem;
    return false;
}

} // namespace trace
