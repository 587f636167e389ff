#include "Process.hpp"

#include "ElfImage.hpp"
#include "ProbePoints.hpp"
#include "Tracefs.hpp"

#include <array>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <set>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace trace {
namespace {

struct Mapping {
    std::uint64_t start = 0, end = 0, offset = 0;
    bool executable = false;
    std::string path;
};

std::vector<Mapping> mappings_of(pid_t process) {
    std::vector<Mapping> mappings;
    std::istringstream lines{read_file("/proc/" + std::to_string(process) + "/maps")};
    for (std::string line; std::getline(lines, line);) {
        Mapping mapping;
        char rights[5] = "";
        int path = 0;
        if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %4s %" SCNx64 " %*s %*s %n",
                        &mapping.start, &mapping.end, rights, &mapping.offset, &path) < 4 ||
            path == 0 || line[static_cast<size_t>(path)] != '/')
            continue;
        mapping.executable = rights[2] == 'x';
        mapping.path = line.substr(static_cast<size_t>(path));
        mappings.push_back(mapping);
    }
    return mappings;
}

std::string seen_from_here(pid_t process, const std::string& path) {
    return "/proc/" + std::to_string(process) + "/root" + path;
}

std::string describe_priorities(pid_t process, const Library& library, std::uint64_t address) {
    if (address == 0)
        return {};
    std::array<std::int32_t, 9> words{};
    const std::string memory = "/proc/" + std::to_string(process) + "/mem";
    const int fd = open(memory.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd == -1)
        return {};
    const auto got =
        pread(fd, words.data(), sizeof words, static_cast<off_t>(library.base + address));
    close(fd);
    if (got != static_cast<ssize_t>(sizeof words))
        return {};
    return "priorities " + std::to_string(words[5]) + ' ' + std::to_string(words[8]) + '\n';
}

// What has none, a script or a static program, would be run by the question.
bool has_interpreter(const std::string& path) {
    const Image image{path};
    bool has = false;
    read_elf(image, [&](auto elf) {
        using Elf = decltype(elf);
        const auto header = image.at<typename Elf::Header>(0);
        for (unsigned i = 0; i < header.e_phnum; ++i) {
            const auto segment = image.at<typename Elf::Segment>(
                header.e_phoff + std::uint64_t{i} * header.e_phentsize);
            has = has || segment.p_type == PT_INTERP;
        }
    });
    return has;
}

} // namespace

Library find_library(pid_t process) {
    std::set<std::string> seen;
    for (const Mapping& mapping : mappings_of(process)) {
        if (mapping.offset != 0 || !seen.insert(mapping.path).second)
            continue;
        const std::string path = seen_from_here(process, mapping.path);
        if (!read_probed_file(path).points.empty())
            return {path, mapping.start};
    }
    return {};
}

std::uint64_t base_of(pid_t process, const std::string& path) {
    std::error_code error;
    for (const Mapping& mapping : mappings_of(process)) {
        if (mapping.offset == 0 &&
            fs::equivalent(seen_from_here(process, mapping.path), path, error))
            return mapping.start;
    }
    return 0;
}

std::string find_program(const std::string& name) {
    if (name.find('/') != std::string::npos)
        return access(name.c_str(), X_OK) == 0 ? name : "";
    const char* const path = std::getenv("PATH");
    std::istringstream directories{path == nullptr ? "/usr/bin:/bin" : path};
    for (std::string directory; std::getline(directories, directory, ':');) {
        std::string program = (directory.empty() ? "." : directory) + '/' + name;
        if (access(program.c_str(), X_OK) == 0)
            return program;
    }
    return {};
}

// As ldd does it.
Library library_of_command(char* const* command) {
    int ends[2];
    if (!has_interpreter(find_program(command[0])) || pipe2(ends, O_CLOEXEC) != 0)
        return {};
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        setenv("LD_TRACE_LOADED_OBJECTS", "1", 1);
        execvp(command[0], command);
        _exit(127);
    }
    close(ends[1]);
    std::string output;
    char part[4096];
    for (ssize_t length; (length = read(ends[0], part, sizeof part)) > 0;)
        output.append(part, static_cast<size_t>(length));
    close(ends[0]);
    waitpid(child, nullptr, 0);
    std::istringstream lines{output};
    for (std::string name, arrow, path, address; lines >> name;) {
        if (name.starts_with("libzelkernel.so") && lines >> arrow >> path && arrow == "=>" &&
            path.starts_with('/'))
            return {path, 0};
    }
    return {};
}

void describe_threads(pid_t process, std::map<pid_t, std::string>& lines) {
    std::error_code error;
    const std::string tasks = "/proc/" + std::to_string(process) + "/task";
    for (const auto& task : fs::directory_iterator{tasks, error}) {
        const std::string id = task.path().filename().string();
        const pid_t thread = std::atoi(id.c_str());
        sched_param param{};
        sched_getparam(thread, &param);
        const std::string name = read_file(task.path().string() + "/comm"); // a whole line
        if (name.empty())
            continue;
        std::string& line = lines[thread];
        line = "thread ";
        line.append(id).append(" ").append(std::to_string(param.sched_priority));
        line.append(" ").append(name);
    }
}

std::string describe_memory(pid_t process, const Library& library, std::uint64_t priorities) {
    std::ostringstream text;
    for (const Mapping& mapping : mappings_of(process)) {
        if (mapping.executable) {
            text << "map " << mapping.start << ' ' << mapping.end << ' ' << mapping.offset << ' '
                 << mapping.path << '\n';
        }
    }
    const std::string maps = text.str();
    return maps.empty() ? maps : maps + describe_priorities(process, library, priorities);
}

std::map<std::string, std::uint64_t> application_files(pid_t process) {
    std::map<std::string, std::uint64_t> files;
    for (const Mapping& mapping : mappings_of(process)) {
        const bool is_system =
            mapping.path.starts_with("/usr/lib/") || mapping.path.starts_with("/lib/");
        const bool is_ours = mapping.path.find("/libzelkernel") != std::string::npos;
        if (mapping.offset == 0 && (is_ours || !is_system))
            files.emplace(seen_from_here(process, mapping.path), mapping.start);
    }
    return files;
}

std::uint64_t offset_in_file(pid_t process, std::uint64_t address) {
    for (const Mapping& mapping : mappings_of(process)) {
        if (mapping.start <= address && address < mapping.end)
            return address - mapping.start + mapping.offset;
    }
    return 0;
}

// A process that nobody has waited for is there, with nothing in it. It looks the same when only
// the main thread has ended.
bool has_ended(pid_t process) {
    const std::string directory = "/proc/" + std::to_string(process);
    const std::string stat = read_file(directory + "/stat");
    const size_t state = stat.rfind(')') + 2;
    if (state >= stat.size())
        return true;
    std::error_code error;
    const fs::directory_iterator threads{directory + "/task", error};
    return (stat[state] == 'Z' || stat[state] == 'X') && std::distance(begin(threads), {}) <= 1;
}

} // namespace trace
