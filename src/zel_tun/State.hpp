// The process-wide state of the network module.
//
// fd_map_mutex guards all of it, but for `generation`, which is also read without the lock, and the
// two ends of the wake-up pipe, which zel_tun_init alone writes, before other threads come in.
// Threads: the application's, in every operation, and the receive thread. The lock is held across
// commands only by the operations on routing instances and criteria, never during a packet's read
// or write, nor while the IP stack's callbacks run.
#pragma once

#include "NeverDestroyed.hpp"
#include "TunDescriptor.hpp"

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <pthread.h>
#include <string>
#include <sys/select.h>

namespace zel::network {

// The file that fatal messages of the module name.
inline constexpr const char* module_file = "src/zel_tun";

inline constexpr int default_mtu = 1500;

// What the receive thread knows of a descriptor.
struct TunFdInfo {
    int index;
    int mtu;
    SharedTunDescriptor descriptor;
};

// A TUN device of a routing instance.
struct VrfTun {
    int family;
    int fd;
    int index;
};

// A device whose deletion command has still to be run.
struct PendingTunDelete {
    int family;
    int index;
    std::string name;
};

// Interface index to descriptor. The value keeps the descriptor open as well, so that a send gets
// away with one lookup.
using TunFds = std::map<int, SharedTunDescriptor>;

struct State {
    pthread_mutex_t fd_map_mutex = PTHREAD_MUTEX_INITIALIZER;

    // The wake-up pipe; -1 before zel_tun_init and when it found no TUN driver.
    int rx_wakeup_read_fd = -1;
    int rx_wakeup_write_fd = -1;

    TunFds tun4_fds;
    TunFds tun6_fds;
    std::map<int, TunFdInfo> fd_map;
    std::map<std::string, std::list<VrfTun>, std::less<>> vrf_map;
    std::list<PendingTunDelete> pending_tun_deletes;
    std::list<std::string> external_traffic_criteria;

    // The pipe's read end and every descriptor of fd_map, and the highest of them.
    fd_set rx_fd_set{};
    int rx_max_fd = 0;

    // Changes whenever something changes that the receive thread copies or has to act on. A pass
    // in which it has not changed takes no lock and copies nothing.
    std::atomic<unsigned> generation{0};

    TunFds& tun_fds(int family);

    // All below: the caller holds fd_map_mutex.
    void changed();
    void watch(int fd);
    void unwatch(int fd);
    void recompute_rx_max_fd();
};

extern NeverDestroyed<State> state;

} // namespace zel::network
