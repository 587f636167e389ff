// What recording costs the machine: the price of one event, tried out, times how many there were.
#pragma once

#include "Tracefs.hpp"

#include <string>

namespace trace {

struct Prices {
    double kernel_event_us = 0;
    double probe_us = 0;
};

// Before the recording: records some events of this process itself, and forgets them.
Prices try_prices(Instance& instance);

double own_seconds(); // of a processor, used by this process

// "1.3 % of one processor: ...", of a recording of so many seconds that has been stopped, in
// which the recorder itself used `own` seconds.
std::string describe_cost(const Instance& instance, const Prices& prices, double seconds,
                          double own);

} // namespace trace
