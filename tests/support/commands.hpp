#pragma once

#include <string>
#include <vector>

namespace zel::test {

// With this file's popen() in the program, every command that the library runs is recorded.

// Takes what was recorded since the last time.
std::vector<std::string> take_commands();

// Instead of each command "<n>" is printed, n counting from 1, and nothing is done.
void only_record_commands();

// Runs a command of the test's own, unrecorded, and gives what it prints.
std::string shell(const std::string& command);

} // namespace zel::test
