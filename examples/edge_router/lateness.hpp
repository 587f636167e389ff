// How late something happened, many times.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

// The application's time: with wrapping, CLOCK_MONOTONIC counts from kernel start.
std::int64_t now_ns();

// One thread records; record() takes no lock and allocates nothing. Any thread may print.
class Lateness {
public:
    explicit Lateness(const char* what) : what_(what), samples_(capacity) {}

    void record(std::int64_t ns);

    // Median, 99 % and maximum, and a histogram in powers of two. Needs a large stack.
    void print() const;

private:
    static constexpr std::size_t capacity = 200'000; // beyond, samples are no longer kept

    const char* what_;
    std::vector<std::uint32_t> samples_; // nanoseconds, at most about four seconds
    std::atomic<std::size_t> count_{0};
};
