// Lateness of the 1 ms tick: tick_bench SECONDS. A period whose end was missed counts from the
// earliest end not served, as cyclictest counts it, and the kernel-call thread, which may run on
// all processors, is kept on one, as cyclictest's thread is.
#include "Measure.hpp"

#include <zelkernel/kcall.h>

#include <algorithm>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::int64_t period = 1'000'000;

std::vector<std::int64_t> lateness;
std::size_t ticks;

// When the timer expired last, as the system knows it. Time that passes between the two calls makes
// it seem earlier, so the latest answer is the best.
std::int64_t last_expiry() {
    std::int64_t latest = 0;
    for (int i = 0; i < 20; ++i) {
        itimerspec remaining;
        const std::int64_t now = bench::now_ns();
        timer_gettime(timer_id, &remaining);
        latest = std::max(latest, now + remaining.it_value.tv_nsec - period);
    }
    return latest;
}

void poller() {
    static std::int64_t expected = 0;
    const std::int64_t now = bench::now_ns();
    if (expected == 0) {
        bench::pin_to_cpu0();
        expected = last_expiry();
    }
    if (ticks < lateness.size())
        lateness[ticks++] = now - expected;
    while (expected <= now)
        expected += period;
}

} // namespace

int main(int argc, char** argv) {
    bench::require(argc == 2, "usage: tick_bench SECONDS");
    const auto seconds = static_cast<unsigned>(std::atoi(argv[1]));
    lateness.resize(std::size_t{seconds} * 1000);
    mlockall(MCL_CURRENT | MCL_FUTURE);
    // As cyclictest does: no deep idle states meanwhile.
    const int latency = open("/dev/cpu_dma_latency", O_RDWR | O_CLOEXEC);
    constexpr std::int32_t none = 0;
    bench::require(latency == -1 || write(latency, &none, sizeof none) == sizeof none, "latency");
    bench::start_kernel(period / 1000, poller);
    sleep(seconds);
    for (std::size_t i = 0; i < ticks; ++i)
        bench::report("tick", "ours", static_cast<double>(lateness[i]));
    std::fflush(stdout);
    std::_Exit(EXIT_SUCCESS);
}
