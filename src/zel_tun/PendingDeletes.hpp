// The devices whose deletion command has still to be run.
//
// Queued by any thread, under fd_map_mutex, which makes the order that of the destructions; taken
// by the receive thread without it, because packets must not wait while an operation on instances
// or criteria holds it across commands.
#pragma once

#include "Chain.hpp"

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
    void push_back(std::unique_ptr<PendingTunDelete> deletion) { chain_.add(deletion.release()); }

    // The chain of all records, oldest first. Receive thread only.
    PendingTunDelete* take_all();

private:
    Chain<PendingTunDelete> chain_;
};

// On the receive thread: runs the queued deletions in their order.
void run_pending_tun_deletes();

} // namespace zel::network
