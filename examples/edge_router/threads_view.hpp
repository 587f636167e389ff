// The threads of this process, as Linux sees them.
#pragma once

#include "checks.hpp"

// Prints a line for each thread, and checks those of the library and of the application against
// what was asked for. Main thread, with its large stack.
void show_threads(Checks& checks);
