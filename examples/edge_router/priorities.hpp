// Every priority of this application, in one place.
#pragma once

#include <zelkernel/kernel.h>

// What start-up is given. linux_base_priority is an offset: the main thread runs at Linux priority
// 1, so application priority 100 becomes Linux priority 5. The application numbers upwards from
// there; the kernel's own threads lie above all of its threads.
inline constexpr KernelPriorities kernel_table = {
    .interrupt_lock_priority = 55,   // Linux 60
    .interrupt_thread_priority = 50, // Linux 55
    .kcall_thread_priority = 45,     // Linux 50
    .reserved_priority = 0,
    .timer_priority = 45,
    .app_base_priority = 100,
    .app_min_priority = 100,
    .app_max_priority = 140, // Linux 45
    .linux_base_priority = 4,
};

// The application's threads, in its own numbering. Packets come before those who wait for them: the
// receive thread must not be kept from the devices by the stack, nor the stack by the servers.
namespace priority {
inline constexpr int device = 135;
inline constexpr int packet_receive = 130;
inline constexpr int ip_stack = 125;
inline constexpr int caller = 120;
inline constexpr int http_server = 110;
inline constexpr int client = 102;
} // namespace priority
