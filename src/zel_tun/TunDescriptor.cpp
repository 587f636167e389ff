#include "TunDescriptor.hpp"

#include "ReceiveWakeup.hpp"
#include "Statistics.hpp"

#include <fcntl.h>
#include <netinet/in.h>
#include <unistd.h>

namespace zel::network {

namespace {

// Where devices count that have no place among the published counters.
zel_statistics_device uncounted;

} // namespace

bool Closing::done_else_await() {
    State state = State::open;
    state_.compare_exchange_strong(state, State::awaited);
    return state == State::done;
}

bool Closing::mark_done() {
    return state_.exchange(State::done) == State::awaited;
}

TunDescriptor::TunDescriptor() : counters_(&uncounted) {}

bool TunDescriptor::open() {
    fd_ = ::open(tun_driver, O_RDWR | O_CLOEXEC);
    return fd_ != -1;
}

void TunDescriptor::count_as(int family, int index) {
    counters_ = claim_device_counters(family == AF_INET ? 4 : 6, index, uncounted);
}

TunDescriptor::~TunDescriptor() {
    if (counters_ != &uncounted)
        release_device_counters(*counters_);
    if (fd_ == -1 || keep_open_)
        return;
    close(fd_);
    if (closing_->mark_done())
        wakeup_zel_tun_packet_receive();
}

} // namespace zel::network
