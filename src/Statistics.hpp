// The counters of zelkernel/statistics.h. They stand in static memory or, once published, in a
// memory file that other processes can map; either way a count is an addition through one pointer.
//
// Who writes: ticks and calls the kernel-call thread (drops: any thread, under kcall_mutex),
// interrupts the interrupt thread, devices the network module (see there). Start-up publishes
// before any of these threads exists.
#pragma once

#include <zelkernel/statistics.h>

#include <cstdint>
#include <time.h>

namespace zel {

// Never null.
extern zel_statistics* statistics;

// Moves the counters into a memory file if ZELKERNEL_STATS is set. A failure is reported in one
// line on standard error and leaves them private.
void publish_statistics();

// Whether somebody may look at them: what is costly to measure is left out otherwise.
bool statistics_are_published();

void count_interrupt(std::uint32_t vector);
void count_tick_lateness(std::uint32_t ns);

// A free place for a device of IP version 4 or 6, zeroed; `otherwise` when there is none. Any
// thread.
zel_statistics_device* claim_device_counters(std::uint32_t version, int index,
                                             zel_statistics_device& otherwise);
void release_device_counters(zel_statistics_device& counters);

// A counter may be read at any moment from outside: written in one piece, without ordering.
inline void count(std::uint32_t& counter, std::uint32_t by = 1) {
    __atomic_store_n(&counter, counter + by, __ATOMIC_RELAXED);
}

} // namespace zel
