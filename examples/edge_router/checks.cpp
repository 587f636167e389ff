#include "checks.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <iterator>
#include <utility>

std::string text(const char* format, ...) {
    char line[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    return line;
}

void Checks::expect(bool held, std::string what) {
    checks_.push_back({held, std::move(what)});
}

void Checks::merge(Checks& others) {
    std::move(others.checks_.begin(), others.checks_.end(), std::back_inserter(checks_));
    others.checks_.clear();
}

bool Checks::all_held() const {
    return std::all_of(checks_.begin(), checks_.end(),
                       [](const Check& check) { return check.held; });
}

bool Checks::print_summary() const {
    std::printf("\nSummary\n");
    for (const Check& check : checks_) {
        std::printf("  %-6s  %s\n", check.held ? "ok" : "FAILED", check.what.c_str());
    }
    const auto failed = std::count_if(checks_.begin(), checks_.end(),
                                      [](const Check& check) { return !check.held; });
    if (failed != 0) {
        std::printf("%td of %zu checks failed.\n", failed, checks_.size());
    } else {
        std::printf("All %zu checks held.\n", checks_.size());
    }
    return failed == 0;
}
