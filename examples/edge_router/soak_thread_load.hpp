// The soak's load on threads: they come and go by the hundred, each with a kernel call.
#pragma once

namespace soak {

void start_thread_load();

// Whether it has seen stopping() and all that it caused is over.
bool thread_load_ended();

} // namespace soak
