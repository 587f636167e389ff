// The process-wide state of the network module.
//
// fd_map_mutex guards every change of it, but for the two ends of the wake-up pipe, which
// zel_tun_init alone writes, before other threads come in. A packet is sent and received without
// it: TunDescriptor.hpp says how the tables of descriptors are read meanwhile, PendingDeletes.hpp
// how the queue is emptied. Threads: the application's, in every operation, and the receive thread.
// The lock is held across commands only by the operations on routing instances and criteria.
#pragma once

#include "NeverDestroyed.hpp"
#include "PendingDeletes.hpp"
#include "TunDescriptor.hpp"

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <netinet/in.h>
#include <pthread.h>
#include <string>

namespace zel::network {

// The file that fatal messages of the module name.
inline constexpr const char* module_file = "src/zel_tun";

// A TUN device of a routing instance.
struct VrfTun {
    int family;
    int fd;
    int index;
};

struct State {
    pthread_mutex_t fd_map_mutex = PTHREAD_MUTEX_INITIALIZER;

    // The wake-up pipe; -1 before zel_tun_init and when it found no TUN driver.
    int rx_wakeup_read_fd = -1;
    int rx_wakeup_write_fd = -1;

    FdMap fd_map;
    TunFds tun4_fds{fd_map};
    TunFds tun6_fds{fd_map};
    std::map<std::string, std::list<VrfTun>, std::less<>> vrf_map;
    PendingTunDeletes pending_tun_deletes;
    std::list<std::string> external_traffic_criteria;

    // Changes after fd_map has: the receive thread looks through that only then.
    std::atomic<unsigned> generation{0};

    // Whether somebody will run the queued deletions.
    std::atomic<bool> has_receive_thread{false};

    TunFds& tun_fds(int family) { return family == AF_INET ? tun4_fds : tun6_fds; }
    void changed() { generation.fetch_add(1, std::memory_order_release); }
};

extern NeverDestroyed<State> state;

} // namespace zel::network
