// The devices whose deletion command has still to be run.
//
// Queued by any thread, under fd_map_mutex, which makes the order that of the destructions; taken
// by the receive thread without it, because packets must not wait while an operation on instances
// or criteria holds it across commands. The newest record is at the head of a chain, which the
// receive thread takes away as a whole: no record is looked at by two threads.
#pragma once

#include <atomic>
#include <memory>
#include <string>

namespace zel::network {

struct PendingTunDelete {
    int family;
    int index;
    std::string name;
    PendingTunDelete* next = nullptr;
};

class PendingTunDeletes {
public:
    void push_back(std::unique_ptr<PendingTunDelete> deletion);

    // The chain of all records, oldest first. Receive thread only.
    PendingTunDelete* take_all();

private:
    std::atomic<PendingTunDelete*> newest_{nullptr};
};

// On the receive thread: runs the queued deletions in their order.
void run_pending_tun_deletes();

} // namespace zel::network
