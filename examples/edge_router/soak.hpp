// The application under a mixed load for a long time: kernel calls, interrupts, packets both ways,
// and threads, devices, instances, criteria and MTUs that come, go and change all the time.
#pragma once

// Runs for so many seconds, or until a stop is requested. What has to hold is checked all the
// time, and at the end the process has to hold no more of any resource than at the start. Prints a
// line for each fault and a verdict with figures; returns the exit status. Main thread, in the
// private machine, after zel_kernel_init.
namespace soak {
int run(long seconds);
}
