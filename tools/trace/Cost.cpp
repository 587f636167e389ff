#include "Cost.hpp"

#include "Process.hpp"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <sstream>
#include <sys/resource.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

namespace trace {
namespace {

[[gnu::noinline]] void stop_by() {
    asm volatile("nop");
}

double now_us() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

template<typename Action>
double time_of_a_batch(Action action) {
    constexpr int actions = 100;
    const double begin = now_us();
    for (int i = 0; i < actions; ++i)
        action();
    return (now_us() - begin) / actions;
}

// The best of some batches, with and without by turns: what disturbs only ever adds, and it comes
// and goes.
template<typename Action>
double price_of(Instance& instance, const std::string& event, Action action) {
    constexpr int batches = 10;
    double with = std::numeric_limits<double>::max(), without = with;
    for (int batch = 0; batch < batches; ++batch) {
        instance.switch_event(event, false);
        without = std::min(without, time_of_a_batch(action));
        if (!instance.switch_event(event, true))
            return 0;
        with = std::min(with, time_of_a_batch(action));
    }
    return std::max(0.0, with - without);
}

double price_of_kernel_event(Instance& instance) {
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
    const itimerspec far_away{{}, {1'000'000, 0}};
    const double price = price_of(instance, "timer/hrtimer_start", [timer, &far_away] {
        timerfd_settime(timer, 0, &far_away, nullptr);
    });
    close(timer);
    return price;
}

double price_of_probe(Instance& instance) {
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    const auto offset = offset_in_file(getpid(), reinterpret_cast<unsigned long>(&stop_by));
    if (!instance.define_probe("price", self, offset, ""))
        return 0;
    const std::string name = instance.group() + "/price";
    const double price = price_of(instance, name, stop_by);
    instance.switch_event(name, false);
    instance.remove_probe("price");
    return price;
}

// By the kernel's count, which has the lost ones, too.
unsigned long count_events(const Instance& instance) {
    unsigned long all = 0;
    std::error_code error;
    for (const auto& entry :
         std::filesystem::directory_iterator{instance.directory() + "/per_cpu", error}) {
        const std::string text = read_file(entry.path().string() + "/stats");
        all += statistic(text, "entries: ") + statistic(text, "\noverrun: ");
    }
    return all;
}

unsigned long count_probes(const Instance& instance) {
    const std::string events = instance.directory() + "/events/" + instance.group() + "/";
    unsigned long all = 0, hits = 0;
    // In this profile the name stands without its group; a file's path is unlikely to be one.
    std::istringstream lines{read_file(tracefs + "/uprobe_profile")};
    for (std::string line, file, name; std::getline(lines, line);) {
        std::istringstream words{line};
        if (words >> file >> name >> hits && access((events + name).c_str(), F_OK) == 0)
            all += hits;
    }
    return all;
}

} // namespace

double own_seconds() {
    rusage used{};
    getrusage(RUSAGE_SELF, &used);
    return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
           static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec) / 1e6;
}

Prices try_prices(Instance& instance) {
    instance.start();
    const Prices prices{price_of_kernel_event(instance), price_of_probe(instance)};
    instance.stop();
    instance.clear();
    return prices;
}

std::string describe_cost(const Instance& instance, const Prices& prices, double seconds,
                          double own) {
    const unsigned long probes = count_probes(instance);
    const unsigned long others = std::max(count_events(instance), probes) - probes;
    const double all = own + (prices.kernel_event_us * static_cast<double>(others) +
                              prices.probe_us * static_cast<double>(probes)) /
                                 1e6;
    char text[200];
    std::snprintf(text, sizeof text,
                  "%.1f %% of one processor: the recorder %.1f %%, %lu events of the kernel at "
                  "%.2f us, %lu of the library at %.2f us",
                  100 * all / seconds, 100 * own / seconds, others, prices.kernel_event_us, probes,
                  prices.probe_us);
    return text;
}

} // namespace trace
