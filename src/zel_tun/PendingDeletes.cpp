#include "PendingDeletes.hpp"

#include "Commands.hpp"
#include "PosixLock.hpp"
#include "State.hpp"

#include <zelkernel/system.h>

#include <new>

namespace zel::network {
namespace {

// A failing deletion is not noticed, and neither is one for which there is no memory.
void run_deletion(const PendingTunDelete& deletion) try {
    const std::string command = in_instance(deletion.name) + "ip tuntap del dev " +
                                device_name(deletion.family, deletion.index) + " mode tun 2>&1";
    zel_run_command(command.c_str(), nullptr, 0);
} catch (const std::bad_alloc&) {
}

} // namespace

void run_pending_tun_deletes() {
    auto& queue = state->pending_tun_deletes;
    std::list<PendingTunDelete> taken;
    PosixLock lock{state->fd_map_mutex};
    while (!queue.empty()) {
        taken.splice(taken.begin(), queue, queue.begin());
        lock.release();
        run_deletion(taken.front());
        taken.clear();
        lock.acquire();
    }
}

} // namespace zel::network
