// The receive thread.
#include "FifoAttributes.hpp"
#include "PendingDeletes.hpp"
#include "Probes.hpp"
#include "ReceiveWait.hpp"
#include "State.hpp"
#include "Statistics.hpp"
#include "SystemCallReport.hpp"

#include <zelkernel/kernel.h>
#include <zelkernel/scheduling.h>
#include <zelkernel/threads.h>
#include <zelkernel/tun.h>

#include <cerrno>
#include <memory>
#include <new>
#include <pthread.h>
#include <unistd.h>

namespace zel::network {
namespace {

struct TunRxCallbacks {
    zel_tun_receive_t receive;
    zel_tun_alloc_buffer_t alloc_buffer;
    zel_tun_free_buffer_t free_buffer;
};

class Receiver {
public:
    explicit Receiver(const TunRxCallbacks& callbacks) : callbacks_(callbacks) {}

    // Waits once and handles what is there: packets, one per device and in the order of the
    // descriptors, then the wake-up pipe, then the queued deletions.
    void pass();

private:
    void receive_packets();
    int receive_packet(const ReadyDevice& device);
    bool drain_wakeup_pipe();

    TunRxCallbacks callbacks_;
    ReceiveWait wait_;
    char scratch_[100]{};
};

void Receiver::pass() {
    wait_.refresh();
    wait_.wait();
    receive_packets();
    if (wait_.is_woken() && !drain_wakeup_pipe())
        return;
    // Again: a device that is to be deleted goes when this thread, too, has let go of it.
    wait_.refresh();
    state->fd_map.close_left();
    run_pending_tun_deletes();
}

void Receiver::receive_packets() {
    bool has_any_failed = false;
    for (const ReadyDevice& device : wait_.ready_devices()) {
        const int error = receive_packet(device);
        // The device is gone from Linux (its namespace was deleted): it would be ready for ever,
        // and this thread, busy with it, would keep the threads below it from running.
        if (error == EBADFD) {
            wait_.ignore(device.descriptor->number());
        } else {
            has_any_failed = has_any_failed || error != 0;
        }
    }
    // One that Linux is taking away is ready without a packet until the rest of the kernel has let
    // go of it: on a board's only processor never, unless it gets the processor.
    if (has_any_failed)
        usleep(1000);
}

// The error of a failed read, else 0.
int Receiver::receive_packet(const ReadyDevice& device) {
    void* handle = nullptr;
    void* data = nullptr;
    callbacks_.alloc_buffer(&handle, &data, device.mtu);
    const int fd = device.descriptor->number();
    zel_statistics_device& counters = device.descriptor->counters();
    if (handle == nullptr) {
        if (read(fd, scratch_, 1) < 0)
            return errno;
        count(counters.dropped_packets);
        return 0;
    }
    const ssize_t length = read(fd, data, static_cast<size_t>(device.mtu));
    if (length < 0) {
        const int error = errno;
        callbacks_.free_buffer(handle);
        return error;
    }
    count(counters.received_packets);
    count(counters.received_bytes, static_cast<uint32_t>(length));
    ZEL_PROBE(packet_read, device.descriptor->ip_version(), device.descriptor->index(), length);
    callbacks_.receive(device.descriptor->index(), handle, static_cast<int>(length));
    return 0;
}

bool Receiver::drain_wakeup_pipe() {
    return read(state->rx_wakeup_read_fd, scratch_, sizeof scratch_) >= 0;
}

void* zel_tun_packet_receive(void* argument) {
    const std::unique_ptr<Receiver> receiver{static_cast<Receiver*>(argument)};
    if (state->rx_wakeup_read_fd == -1)
        return nullptr;
    for (;;)
        receiver->pass();
}

int create_receive_thread(Receiver* receiver, int priority) {
    FifoAttributes attributes;
    const sched_param param{priority};
    __wrap_pthread_attr_setschedparam(attributes.get(), &param);
    pthread_t thread{};
    const int result =
        __wrap_pthread_create(&thread, attributes.get(), zel_tun_packet_receive, receiver);
    // Without a TUN driver the thread, detached, may be gone by now and must not be touched.
    if (result == 0 && state->rx_wakeup_read_fd != -1)
        __wrap_pthread_setname_np(thread, "IpStackSyncRxPacket");
    return result;
}

} // namespace
} // namespace zel::network

using namespace zel::network;

void zel_tun_packet_init(zel_tun_receive_t receive, zel_tun_alloc_buffer_t alloc_buffer,
                         zel_tun_free_buffer_t free_buffer, int priority) try {
    auto receiver = std::make_unique<Receiver>(TunRxCallbacks{receive, alloc_buffer, free_buffer});
    // Before the thread can come to a deletion; see the destruction of a device.
    state->has_receive_thread = state->rx_wakeup_read_fd != -1;
    // A refused thread has been reported by the creation call; the record is still ours then.
    if (create_receive_thread(receiver.get(), priority) == 0) {
        static_cast<void>(receiver.release());
    } else {
        state->has_receive_thread = false;
    }
} catch (const std::bad_alloc&) {
    zel::report_failure(ENOMEM, "zel_tun_packet_init");
}
