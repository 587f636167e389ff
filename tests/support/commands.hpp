#pragma once

#include "interpose.hpp"

#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

ZEL_INTERPOSE(FILE*, popen, (const char* command, const char* mode), (command, mode))

namespace zel::test {

using Strings = std::vector<std::string>;

// The commands that the library runs.
class Commands {
public:
    Strings take() {
        const std::lock_guard lock{mutex_};
        return std::exchange(commands_, {});
    }
    std::string add(const char* command) {
        const std::lock_guard lock{mutex_};
        commands_.emplace_back(command);
        return "echo -n '<" + std::to_string(++count_) + ">'; false";
    }

private:
    std::mutex mutex_;
    Strings commands_;
    int count_ = 0;
};

// Records from now on. When `dry`, "<n>" is printed in place of each command, n counting from 1,
// and nothing is done: each fails, which changes nothing else.
inline Commands& record_commands(bool dry) {
    auto* commands = new Commands; // threads of the library use it until the process ends
    interposed::popen = [commands, dry](const char* command, const char* mode) {
        const std::string printer = commands->add(command);
        return real::popen(dry ? printer.c_str() : command, mode);
    };
    return *commands;
}

} // namespace zel::test
