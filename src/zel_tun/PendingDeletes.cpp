#include "PendingDeletes.hpp"

#include "Commands.hpp"
#include "State.hpp"

#include <zelkernel/system.h>

#include <new>

namespace zel::network {

PendingTunDelete* PendingTunDeletes::take_all() {
    PendingTunDelete* latest = chain_.take_all();
    PendingTunDelete* oldest = nullptr;
    while (latest != nullptr) {
        PendingTunDelete* const before = latest->next;
        latest->next = oldest;
        oldest = latest;
        latest = before;
    }
    return oldest;
}

namespace {

// A failing deletion is not noticed, and neither is one for which there is no memory.
void run_deletion(const PendingTunDelete& deletion) try {
    const std::string command =
        composed({in_instance(deletion.name), "ip tuntap del dev ",
                  device_name(deletion.family, deletion.index), " mode tun 2>&1"});
    zel_run_command(command.c_str(), nullptr, 0);
} catch (const std::bad_alloc&) {
}

} // namespace

void run_pending_tun_deletes() {
    while (PendingTunDelete* first = state->pending_tun_deletes.take_all()) {
        while (first != nullptr) {
            const std::unique_ptr<PendingTunDelete> deletion{first};
            first = deletion->next;
            run_deletion(*deletion);
        }
    }
}

} // namespace zel::network
