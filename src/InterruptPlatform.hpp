// Calls into the interrupt-pulse interface, which the application's platform supplies or not.
#pragma once

#include <zelkernel/interrupt_pulse.h>

namespace zel::platform {

// Stop the process through zel_fatal, naming the function, when there is no platform.
int open_pulse_fd();
void* wait_for_pulse(int fd);
void* attach(int vector, int code, void* source);
void enable(int vector);

// Do nothing when there is no platform: nothing is attached, and no interrupt can come.
void detach(int vector);
void disable(int vector);

} // namespace zel::platform
