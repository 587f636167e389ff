#pragma once

#include <cstddef>
#include <string>

// Collects what the commands of several operations print. Used for one operation at a time:
//     zel_vrf_create(report.next(), CommandReport::size, name);
class CommandReport {
public:
    static constexpr std::size_t size = 1024;

    char* next() {
        collect();
        return output_;
    }
    const std::string& all() {
        collect();
        return text_;
    }

private:
    void collect();

    char output_[size] = "";
    std::string text_;
};
