#include "TunDescriptor.hpp"

#include "ReceiveWakeup.hpp"

#include <fcntl.h>
#include <unistd.h>

namespace zel::network {

bool Closing::done_else_await() {
    State state = State::open;
    state_.compare_exchange_strong(state, State::awaited);
    return state == State::done;
}

bool Closing::mark_done() {
    return state_.exchange(State::done) == State::awaited;
}

bool TunDescriptor::open() {
    fd_ = ::open(tun_driver, O_RDWR | O_CLOEXEC);
    return fd_ != -1;
}

TunDescriptor::~TunDescriptor() {
    if (fd_ == -1 || keep_open_)
        return;
    close(fd_);
    if (closing_->mark_done())
        wakeup_zel_tun_packet_receive();
}

} // namespace zel::network
