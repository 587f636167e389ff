#include "lateness.hpp"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <limits>
#include <string>
#include <time.h>

namespace {

constexpr unsigned long microsecond = 1000;

// Row n of the histogram counts the samples below 2^n microseconds (and not below 2^(n-1)).
std::size_t row_of(std::uint32_t ns) {
    return static_cast<std::size_t>(std::bit_width(ns / microsecond));
}

void print_histogram(const std::vector<std::uint32_t>& sorted) {
    constexpr std::size_t widest_bar = 50;
    std::vector<std::size_t> rows(row_of(sorted.back()) + 1);
    for (const std::uint32_t ns : sorted) {
        ++rows[row_of(ns)];
    }
    const std::size_t fullest = *std::max_element(rows.begin(), rows.end());
    for (std::size_t row = row_of(sorted.front()); row < rows.size(); ++row) {
        const std::size_t bar = (rows[row] * widest_bar + fullest - 1) / fullest;
        std::printf("    < %8lu us %7zu |%s\n", 1UL << row, rows[row],
                    std::string(bar, '#').c_str());
    }
}

} // namespace

std::int64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void Lateness::record(std::int64_t ns) {
    const std::size_t count = count_.load(std::memory_order_relaxed);
    if (count < capacity) {
        constexpr std::int64_t most = std::numeric_limits<std::uint32_t>::max();
        samples_[count] = static_cast<std::uint32_t>(std::clamp(ns, std::int64_t{0}, most));
        count_.store(count + 1, std::memory_order_release);
    }
}

void Lateness::print() const {
    const auto count = static_cast<std::ptrdiff_t>(count_.load(std::memory_order_acquire));
    if (count == 0) {
        std::printf("  %s: no samples\n", what_);
        return;
    }
    std::vector<std::uint32_t> sorted(samples_.begin(), samples_.begin() + count);
    std::sort(sorted.begin(), sorted.end());
    const auto at = [&sorted](std::size_t percent) {
        return sorted[(sorted.size() - 1) * percent / 100] / microsecond;
    };
    std::printf("  %s: %zu samples, median %lu us, 99 %% %lu us, maximum %lu us\n", what_,
                sorted.size(), at(50), at(99), at(100));
    print_histogram(sorted);
}
