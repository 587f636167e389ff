// A 1 ms tick for a second, made as the kernel-call thread's tick is: a timer that signals a
// thread.
#pragma once

#include <cstdint>
#include <vector>

namespace zel::doctor {

struct TickTrial {
    std::vector<std::int32_t> lateness_us; // one for each tick that arrived; empty without a timer
    unsigned lost = 0;                     // ticks that passed while the thread was away
    bool real_time = false;                // whether the thread got its SCHED_FIFO priority
};

TickTrial run_tick_trial(int fifo_priority);

} // namespace zel::doctor
