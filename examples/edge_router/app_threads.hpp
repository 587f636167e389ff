// Threads of the application, as any POSIX program makes them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

enum class Processors { first, all };

struct AppThread {
    std::string name;
    int priority; // the application's numbering
    Processors processors;
};

// The kernel's smallest and default stack: enough for a thread that formats nothing and calls into
// no large library.
inline constexpr std::size_t kernel_stack = std::size_t{16} * 1024;

// Starts a thread. It has its name and its processors when this returns: the thread sees to both
// itself before it runs `routine`. Ends the process with a message when the thread cannot be had.
// Main thread only.
void start_app_thread(const char* name, int priority, void* (*routine)(void*), void* argument,
                      std::size_t stack = kernel_stack, Processors processors = Processors::first);

// Tells of a thread that something else has made (the library, the IP stack).
void note_app_thread(const char* name, int priority);

// Everything started or noted so far. Main thread only.
const std::vector<AppThread>& app_threads();
