// How long a packet waits while another thread configures: sends through one device and receptions
// from another, of an instance that nobody touches, every 0.2 ms; beside them nothing, then
// instances and criteria that come and go, by turns.
#include "TunInstance.hpp"

#include <zelkernel/locks.h>

#include <array>
#include <atomic>
#include <string>
#include <utility>

namespace {

constexpr int receive_priority = 10, traffic_priority = 5, configuration_priority = 1;
constexpr std::int64_t period = 203'417; // no ticks of Linux fall on every second sample
constexpr std::int64_t turn = 1'500'000'000;
constexpr int most_turns = 4;
constexpr std::size_t samples_per_turn = turn / period;

enum Side { quiet, configuration, sides };
constexpr const char* side_names[sides] = {"quiet", "configuration"};

struct Samples {
    std::array<std::int64_t, samples_per_turn * most_turns> values;
    std::size_t count;

    void add(std::int64_t value) {
        if (count < values.size())
            values[count++] = value;
    }
};
std::array<Samples, sides> sends, writes, gaps, offers;

std::atomic<int> side;
std::atomic<std::int64_t> last_reception; // 0: the gap that ends next belongs to no turn
std::array<unsigned char, bench::largest_packet> buffer;
sem_t turn_done, configure, configured;
std::atomic<int> rounds;

void receive(int, void*, int) {
    const std::int64_t now = bench::now_ns();
    if (last_reception != 0)
        gaps[side].add(now - last_reception);
    last_reception = now;
}

void alloc_buffer(void** handle, void** data, int) {
    *handle = *data = buffer.data();
}

void free_buffer(void*) {}

template<typename Action>
std::int64_t time_of(const Action& action) {
    const std::int64_t begin = bench::now_ns();
    action();
    return bench::now_ns() - begin;
}

// Linux drops the packets, whose sums are wrong, at once: what is measured is the way there.
void* keep_traffic(void* argument) {
    const auto& instance = *static_cast<const bench::TunInstance*>(argument);
    const auto& devices = instance.devices();
    static const std::array<unsigned char, 64> packet{0x45};
    const auto send = [] { zel_tun_ipv4_packet_send(0, packet.data(), packet.size()); };
    const auto write_by_hand = [&] {
        [[maybe_unused]] const auto n = write(devices[0].fd, packet.data(), packet.size());
    };
    for (int i = 0; i < sides * bench::turns(most_turns); ++i) {
        side = i % sides;
        last_reception = 0;
        if (side == configuration)
            sem_post(&configure);
        std::int64_t next = bench::now_ns(), last_offer = next;
        for (std::size_t sample = 0; sample < samples_per_turn; ++sample) {
            next += period;
            bench::sleep_until(next);
            // By turns first: that one pays for the waking and for what Linux has put off.
            if (sample % 2 == 0)
                sends[side].add(time_of(send));
            writes[side].add(time_of(write_by_hand));
            if (sample % 2 != 0)
                sends[side].add(time_of(send));
            const std::int64_t now = bench::now_ns();
            offers[side].add(now - std::exchange(last_offer, now));
            instance.queue_packet(devices[1], packet.size());
        }
        if (side == configuration) {
            side = quiet;
            __wrap_sem_wait(&configured);
        }
    }
    sem_post(&turn_done);
    return nullptr;
}

void change_instances_and_criteria() {
    char text[512];
    zel_external_traffic_match_criteria_add(text, sizeof text, IPPROTO_TCP, 0, 179);
    zel_vrf_create(text, sizeof text, "passing");
    zel_vrf_destroy(text, sizeof text, "passing");
    zel_external_traffic_match_criteria_del(text, sizeof text, IPPROTO_TCP, 0, 179);
    ++rounds;
}

void* configure_in_turn(void*) {
    for (;;) {
        __wrap_sem_wait(&configure);
        while (side == configuration)
            change_instances_and_criteria();
        sem_post(&configured);
    }
}

void start(int priority, void* (*routine)(void*), void* argument) {
    bench::start_thread(bench::fifo_attributes(bench::linux_priority(priority), 0), routine,
                        argument);
}

void report(const char* path, const Samples& samples, int which) {
    for (std::size_t i = 0; i < samples.count; ++i)
        bench::report(path, side_names[which], static_cast<double>(samples.values[i]));
}

} // namespace

int main() {
    for (sem_t* semaphore : {&turn_done, &configure, &configured})
        sem_init(semaphore, 0, 0);
    bench::start_kernel(1'000'000);
    static bench::TunInstance instance{"bench"};
    for (int i = 0; i < 4; ++i)
        zel_vrf_create(nullptr, 0, ("standing-by-" + std::to_string(i)).c_str());
    zel_tun_packet_init(receive, alloc_buffer, free_buffer, receive_priority);
    instance.create_devices(2);
    start(configuration_priority, configure_in_turn, nullptr);
    start(traffic_priority, keep_traffic, &instance);
    __wrap_sem_wait(&turn_done);
    bench::require(rounds > 0, "a configuration beside the traffic");
    for (int which = 0; which < sides; ++which) {
        report("send", sends[static_cast<std::size_t>(which)], which);
        report("write()", writes[static_cast<std::size_t>(which)], which);
        report("gap between packets", offers[static_cast<std::size_t>(which)], which);
        report("gap of reception", gaps[static_cast<std::size_t>(which)], which);
    }
    std::fflush(stdout);
    std::_Exit(EXIT_SUCCESS);
}
