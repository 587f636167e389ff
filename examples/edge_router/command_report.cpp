#include "command_report.hpp"

#include <sstream>

// Without the tools' warnings. One always comes: the library asks for no duplicate address
// detection with IPv4 addresses too, where there is none.
void CommandReport::collect() {
    std::istringstream lines(output_);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("Warning: ", 0) != 0) {
            text_ += line + '\n';
        }
    }
    output_[0] = '\0';
}
