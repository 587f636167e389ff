// What the run has shown to hold, or not.
#pragma once

#include <string>
#include <vector>

// printf into a string. Give it no floating point: formatting that takes more than a 16 KiB stack.
[[gnu::format(printf, 1, 2)]] std::string text(const char* format, ...);

// Not shared between threads: each one that checks something has its own, and they are merged.
class Checks {
public:
    void expect(bool held, std::string what);
    void merge(Checks& others);

    bool all_held() const;

    // One line a check, and one for all. Returns whether every check held.
    bool print_summary() const;

private:
    struct Check {
        bool held;
        std::string what;
    };
    std::vector<Check> checks_;
};
