// zelkernel-trace: records what an application and the kernel below it do. Report and export are a
// Python program, for which this one only stands at the door: the target records without it.
#include "../Output.hpp"
#include "Fail.hpp"
#include "Record.hpp"

#include <charconv>
#include <cstdio>
#include <filesystem>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace {

using namespace trace;

constexpr const char* usage =
    "usage: zelkernel-trace record [-o FILE] [--seconds N] [--buffer KIB] PID\n"
    "       zelkernel-trace record [-o FILE] [--seconds N] [--buffer KIB] -- COMMAND...\n"
    "       zelkernel-trace report [--json] [--latest N] FILE\n"
    "       zelkernel-trace export [--html | --svg CASE] [--latest N] [-o OUTPUT] FILE\n"
    "Shows why an application's ticks, interrupts and threads were late.\n"
    "  -o FILE       the recording (zelkernel.trace)\n"
    "  --seconds N   how long to record (10); ends with the application, too\n"
    "  --buffer KIB  memory for each processor (16384); the newest events are kept\n"
    "  --help, --version\n";

template<typename Number>
bool parse_number(std::string_view text, Number lowest, Number highest, Number& number) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    return result.ec == std::errc{} && result.ptr == text.data() + text.size() &&
           number >= lowest && number <= highest;
}

// Whether `name` is an option; its value is judged by parse_value().
bool is_option(std::string_view name) {
    return name == "-o" || name == "--seconds" || name == "--buffer";
}

bool parse_value(std::string_view name, const char* value, Options& options) {
    if (name == "--seconds")
        return parse_number(value, 1u, 86400u, options.seconds);
    if (name == "--buffer")
        return parse_number(value, 64u, 1u << 20, options.buffer_kib);
    options.file = value;
    return *value != '\0';
}

bool parse(int argc, char** argv, Options& options) {
    for (int i = 2; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--") {
            options.command = argv + i + 1;
            return i + 1 < argc && options.process == 0;
        }
        if (is_option(argument)) {
            if (++i == argc || !parse_value(argument, argv[i], options))
                return false;
        } else if (options.process != 0 || !parse_number(argument, 1, 1 << 30, options.process)) {
            return false;
        }
    }
    return options.process != 0;
}

// Does not return, unless there is no Python.
int read(char** argv) {
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
    const std::string reader = self.parent_path().parent_path() / ZEL_TRACE_READER;
    if (access(reader.c_str(), R_OK) != 0) {
        fail("report and export are not installed here (Debian: zelkernel-host-tools): take the "
             "recording to a machine that has them");
    }
    std::vector<const char*> arguments{"python3", "-B", reader.c_str()};
    while (*++argv != nullptr)
        arguments.push_back(*argv);
    arguments.push_back(nullptr);
    execvp(arguments[0], const_cast<char**>(arguments.data()));
    fail("report and export need python3: take the recording to a machine that has it");
}

} // namespace

int main(int argc, char** argv) {
    const std::string_view what = argc > 1 ? argv[1] : "";
    Options options;
    if (what == "record" && parse(argc, argv, options))
        return record(options);
    if (what == "report" || what == "export")
        return read(argv);
    const bool asked = argc == 2 && (what == "--help" || what == "--version");
    if (!asked) {
        std::fputs(usage, stderr);
        return misused;
    }
    zel::tools::end_with_the_reader();
    std::fputs(what == "--help" ? usage : "zelkernel-trace " ZEL_TOOLS_VERSION "\n", stdout);
    return zel::tools::is_written("zelkernel-trace") ? ok : failed;
}
