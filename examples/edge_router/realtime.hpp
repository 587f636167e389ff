// The kernel's real-time services under load: tick, kernel calls, interrupts, deferred routines.
#pragma once

#include "checks.hpp"

inline constexpr unsigned tick_period_us = 1000;

// The run poller, for zel_kernel_init.
void on_tick();

// Starts the callers and the interrupting device. Once, after zel_kernel_init, main thread.
void start_realtime();

// Stops them, waits until all that they caused has been done, prints the lateness and adds to
// `checks`. How late something was is never judged: only that nothing was lost.
void finish_realtime(Checks& checks);
