// An edge router's control program, in small: an application on libzelkernel with its own IP stack,
// two routing instances with the same addresses, a periodic device, and the load of real clients.
// It shows what each service does and checks that nothing was lost or mixed up.
#include "checks.hpp"
#include "lateness.hpp"
#include "network.hpp"
#include "priorities.hpp"
#include "private_machine.hpp"
#include "realtime.hpp"
#include "soak.hpp"
#include "stop_signals.hpp"
#include "threads_view.hpp"

#include <cstdio>
#include <cstdlib>
#include <getopt.h>
#include <zelkernel/kernel.h>

namespace {

struct Options {
    double seconds = 8;
    double megabytes = 8;
    double soak_minutes = 0;
};

[[noreturn]] void explain(int status) {
    std::fprintf(status == 0 ? stdout : stderr,
                 "usage: edge_router [--seconds N] [--megabytes N]\n"
                 "       edge_router --soak MINUTES\n"
                 "  --seconds    how long to measure, at least (8)\n"
                 "  --megabytes  how much each of the four fetches transfers (8)\n"
                 "  --soak       run under a mixed load and judge what is lost or left behind\n"
                 "Fractions are fine.\n");
    std::exit(status);
}

Options read_options(int argc, char* argv[]) {
    const option known[] = {{"seconds", required_argument, nullptr, 's'},
                            {"megabytes", required_argument, nullptr, 'm'},
                            {"soak", required_argument, nullptr, 'k'},
                            {"help", no_argument, nullptr, 'h'},
                            {}};
    Options options;
    for (int found; (found = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        double* const value = found == 's'   ? &options.seconds
                              : found == 'm' ? &options.megabytes
                              : found == 'k' ? &options.soak_minutes
                                             : nullptr;
        if (value == nullptr) {
            explain(found == 'h' ? 0 : 2);
        }
        *value = std::strtod(optarg, nullptr);
        if (!(*value >= 0.1 && *value <= 10'000)) {
            explain(2);
        }
    }
    return options;
}

void require(const std::optional<std::string>& problem) {
    if (problem) {
        std::fprintf(stderr, "edge_router: %s\n", problem->c_str());
        std::exit(2);
    }
}

void start_kernel() {
    block_stop_signals();
    zel_kernel_init(kernel_table, tick_period_us, 0, on_tick, nullptr);
    block_stop_signals(); // start-up leaves SIGTERM and SIGHUP unblocked
}

// Returns false when it was cut short.
bool run(const Options& options, Checks& checks) {
    start_network(checks);
    if (stop_requested()) {
        return false;
    }
    start_realtime();
    start_network_clients(static_cast<std::size_t>(options.megabytes * 1e6));
    show_threads(checks);
    let_network_clients_begin();
    const std::int64_t end = now_ns() + static_cast<std::int64_t>(options.seconds * 1e9);
    std::printf("\nRunning for %g s ...\n", options.seconds);
    while (now_ns() < end || !network_finished()) {
        if (stop_requested_within(50)) {
            return false;
        }
    }
    return true;
}

} // namespace

int main(int argc, char* argv[]) {
    const Options options = read_options(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    require(what_is_missing());
    require(enter_private_machine());
    start_kernel();
    if (options.soak_minutes != 0) {
        return soak::run(static_cast<long>(options.soak_minutes * 60));
    }

    Checks checks;
    const bool complete = run(options, checks);
    if (complete) {
        finish_realtime(checks);
    }
    finish_network(checks);
    // The library's threads, lwIP's and ours still run: the process may end at any moment.
    if (!complete) {
        std::printf("\nInterrupted: clients ended, devices and instances taken down.\n");
        return 130;
    }
    return checks.print_summary() ? 0 : 1;
}
