#include "PendingDeletes.hpp"

#include "Commands.hpp"
#include "State.hpp"

#include <zelkernel/system.h>

#include <new>

namespace zel::network {

void PendingTunDeletes::push_back(std::unique_ptr<PendingTunDelete> deletion) {
    deletion->next = newest_.load(std::memory_order_relaxed);
    while (!newest_.compare_exchange_weak(deletion->next, deletion.get(), std::memory_order_release,
                                          std::memory_order_relaxed)) {
    }
    static_cast<void>(deletion.release());
}

PendingTunDelete* PendingTunDeletes::take_all() {
    // Most passes find none and write nothing.
    if (newest_.load(std::memory_order_relaxed) == nullptr)
        return nullptr;
    PendingTunDelete* newest = newest_.exchange(nullptr, std::memory_order_acquire);
    PendingTunDelete* oldest = nullptr;
    while (newest != nullptr) {
        PendingTunDelete* const before = newest->next;
        newest->next = oldest;
        oldest = newest;
        newest = before;
    }
    return oldest;
}

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
    while (PendingTunDelete* first = state->pending_tun_deletes.take_all()) {
        while (first != nullptr) {
            const std::unique_ptr<PendingTunDelete> deletion{first};
            first = deletion->next;
            run_deletion(*deletion);
        }
    }
}

} // namespace zel::network
