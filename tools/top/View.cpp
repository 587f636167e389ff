#include "View.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <numeric>
#include <span>

namespace top {
namespace {

class Page {
public:
    [[gnu::format(printf, 2, 3)]] void line(const char* format, ...) {
        char text[256];
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
        text_ += text;
        text_ += '\n';
    }
    std::string take() { return std::move(text_); }

private:
    std::string text_;
};

// Counters wrap; their difference does not care.
double rate(uint32_t before, uint32_t now, double seconds) {
    return seconds > 0 ? static_cast<double>(now - before) / seconds : 0;
}

// The upper end of the class that holds the given share of all ticks, in microseconds.
double lateness_quantile(const zel_statistics& statistics, double share) {
    const std::span classes{statistics.lateness};
    const auto all = static_cast<double>(std::accumulate(classes.begin(), classes.end(), 0ull));
    double seen = 0;
    for (size_t n = 0; n < classes.size(); ++n) {
        seen += classes[n];
        if (seen > 0 && seen >= share * all)
            return static_cast<double>(2ull << n) / 1000;
    }
    return 0;
}

void show_threads(Page& page, const Look& now) {
    page.line("%8s %-16s %6s %6s %6s %4s %s", "THREAD", "NAME", "APP", "LINUX", "POLICY", "CPU",
              "ALLOWED");
    for (const Thread& thread : now.threads) {
        const std::string application =
            is_real_time(thread) ? std::to_string(application_priority(thread, now.statistics))
                                 : "-";
        page.line("%8d %-16s %6s %6d %6s %4d %s", thread.id, thread.name.c_str(),
                  application.c_str(), thread.priority, policy_name(thread.policy),
                  thread.processor, thread.allowed.c_str());
    }
}

void show_kernel(Page& page, const zel_statistics& before, const zel_statistics& now,
                 double seconds) {
    page.line("ticks    %10u  %8.0f/s  period %u us  missed %u", now.ticks,
              rate(before.ticks, now.ticks, seconds), now.tick_period_ns / 1000, now.ticks_missed);
    page.line("lateness last %.1f us  median < %.1f us  99 %% < %.1f us  maximum %.1f us",
              now.lateness_last_ns / 1000.0, lateness_quantile(now, 0.5),
              lateness_quantile(now, 0.99), now.lateness_max_ns / 1000.0);
    page.line("calls    %10u  %8.0f/s  last pass %u  high water %u of 1023  dropped %u",
              now.calls_run, rate(before.calls_run, now.calls_run, seconds), now.calls_last_pass,
              now.calls_high_water, now.calls_dropped);
}

void show_interrupts(Page& page, const zel_statistics& before, const zel_statistics& now,
                     double seconds) {
    for (size_t i = 0; i < ZEL_STATISTICS_VECTORS && now.vectors[i].used != 0; ++i) {
        page.line("vector %-3u %10u  %8.0f/s", now.vectors[i].vector, now.vectors[i].interrupts,
                  rate(before.vectors[i].interrupts, now.vectors[i].interrupts, seconds));
    }
    if (now.interrupts_of_other_vectors != 0)
        page.line("other vectors %6u", now.interrupts_of_other_vectors);
}

void show_devices(Page& page, const zel_statistics& before, const zel_statistics& now,
                  double seconds) {
    page.line("%-14s %10s %9s %10s %9s %8s", "DEVICE", "RECEIVED", "/s", "SENT", "/s", "DROPPED");
    for (size_t i = 0; i < ZEL_STATISTICS_DEVICES; ++i) {
        const zel_statistics_device& device = now.devices[i];
        if (!is_used(device))
            continue;
        // A place that another device had before starts from 0.
        const bool is_same =
            before.devices[i].family == device.family && before.devices[i].index == device.index;
        const zel_statistics_device then = is_same ? before.devices[i] : zel_statistics_device{};
        page.line(
            "%-14s %10u %9.0f %10u %9.0f %8u", device_name(device).c_str(), device.received_packets,
            rate(then.received_packets, device.received_packets, seconds), device.sent_packets,
            rate(then.sent_packets, device.sent_packets, seconds), device.dropped_packets);
    }
}

} // namespace

bool is_used(const zel_statistics_device& device) {
    return device.family == 4 || device.family == 6;
}

std::string device_name(const zel_statistics_device& device) {
    return "tun" + std::to_string(device.family) + "_" + std::to_string(device.index);
}

int application_priority(const Thread& thread, const zel_statistics& statistics) {
    return thread.priority + statistics.priorities[5] - statistics.priorities[8];
}

std::string render(pid_t pid, const Look& before, const Look& now) {
    const double seconds = now.seconds - before.seconds;
    Page page;
    page.line("zelkernel-top: process %d", pid);
    show_threads(page, now);
    page.line(" ");
    show_kernel(page, before.statistics, now.statistics, seconds);
    show_interrupts(page, before.statistics, now.statistics, seconds);
    page.line(" ");
    show_devices(page, before.statistics, now.statistics, seconds);
    return page.take();
}

} // namespace top
