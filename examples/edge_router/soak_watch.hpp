// What the threads of the soak share: the wish to end, the faults found, and the figures.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace soak {

struct Figures {
    std::atomic<std::uint64_t> packets{0}; // received by the IP stack and echoed to a peer
    std::atomic<std::uint64_t> bytes{0};
    std::atomic<std::uint64_t> strays{0}; // sent to devices that may not exist
    std::atomic<std::uint32_t> instances{0};
    std::atomic<std::uint32_t> devices{0};
    std::atomic<std::uint32_t> threads{0};
    std::atomic<std::uint32_t> settings{0}; // changes of criteria and MTUs

    // Beside all of the configuration: how long the IP stack waited, of the receive thread alone.
    std::atomic<std::int64_t> longest_send_ns{0};
    std::atomic<std::int64_t> longest_gap_ns{0}; // between two packets received
};
extern Figures figures;

// From then on the load ends, and what fails is no longer a fault when the run was cut short.
void stop(bool cut_short);
bool stopping();

// Reports that something did not hold; any thread.
void fault(const std::string& what);
unsigned faults();

} // namespace soak
