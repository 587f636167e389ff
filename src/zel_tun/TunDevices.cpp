// Creation and destruction of TUN devices.
#include "Commands.hpp"
#include "OutputText.hpp"
#include "PosixLock.hpp"
#include "ReceiveWakeup.hpp"
#include "State.hpp"

#include <zelkernel/tun.h>

#include <cstring>
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <memory>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace zel::network {
namespace {

static_assert(TUNSETIFF == 0x400454CA && (IFF_TUN | IFF_NO_PI) == 0x1001);

// The name is cut to what the driver takes; the commands carry it in full.
bool attach_to_device(int fd, const std::string& device) {
    ifreq request{};
    device.copy(request.ifr_name, IFNAMSIZ - 1);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    return ioctl(fd, TUNSETIFF, &request) >= 0;
}

// A device that Linux is taking away is ready without a packet for tens of milliseconds: the
// receive thread must not wait in its read() meanwhile.
void read_without_waiting(int fd) {
    fcntl(fd, F_SETFL, O_NONBLOCK);
}

// Nothing, with the reason in `output`, when the device cannot be opened.
TunReference open_device(OutputText& output, const std::string& device, int family, int index) {
    const int fd = open(tun_driver, O_RDWR | O_CLOEXEC);
    if (fd == -1) {
        output.append("Unable to open %s.\r\n", tun_driver);
        return {};
    }
    if (fd >= FD_SETSIZE) {
        output.append("Descriptor %d is too large for %s\r\n", fd, device.c_str());
    } else if (!attach_to_device(fd, device)) {
        output.append("ioctl() failed for %s\r\n", device.c_str());
    } else {
        read_without_waiting(fd);
        return state->fd_map.adopt(fd, family, index);
    }
    close(fd);
    return {};
}

// An index that is known already keeps its earlier descriptor. The instance's entry is made ahead:
// what is done here cannot fail half way.
void enter(TunReference descriptor, const char* name, std::list<VrfTun>& vrf_tun) {
    const auto [family, fd, index] = vrf_tun.front();
    const PosixLock lock{state->fd_map_mutex};
    const auto instance = state->vrf_map.find(name);
    if (instance != state->vrf_map.end())
        instance->second.splice(instance->second.end(), vrf_tun);
    state->fd_map.insert(std::move(descriptor));
    state->tun_fds(family).insert(index, fd);
    state->changed();
}

void zel_tun_create(char* output, size_t output_size, const char* name, int index, int family) {
    report_into(output, output_size, [=](OutputText& text) {
        const std::string device = device_name(family, index);
        text.run(composed({"ip tuntap add dev ", device, " mode tun 2>&1"}));
        TunReference descriptor = open_device(text, device, family, index);
        if (!descriptor)
            return;
        std::list<VrfTun> vrf_tun{{family, descriptor->number(), index}};
        text.run(composed({"ip link set dev ", device, " netns \"", name, "\" 2>&1"}));
        enter(std::move(descriptor), name, vrf_tun);
        wakeup_zel_tun_packet_receive();
    });
}

// Not by the name that the caller gives: an entry left in another instance's list would stand for
// whatever device gets the descriptor's number next.
void forget_in_its_instance(int fd) {
    for (auto& [name, devices] : state->vrf_map)
        devices.remove_if([fd](const VrfTun& device) { return device.fd == fd; });
}

// Takes the device out of the state and hands over its descriptor; nothing when it is not known.
TunReference unregister(int index, int family) {
    TunFds& tun_fds = state->tun_fds(family);
    const int fd = tun_fds.find(index);
    if (fd == -1)
        return {};
    forget_in_its_instance(fd);
    tun_fds.erase(index);
    TunReference descriptor = state->fd_map.erase(fd);
    state->changed();
    return descriptor;
}

// The deletion command alone would not do where somebody else may have the device open: Linux
// refuses it while a sender of this process, the receive thread, or a child between fork and exec
// has. Without a receive thread nobody runs the command yet, and the device is to stay until then.
void end_device(const TunDescriptor& descriptor) {
    if (state->has_receive_thread || descriptor.is_shared())
        descriptor.end_device_with_descriptor();
}

void zel_tun_destroy(char* output, const char* name, int index, int family) {
    // Of this buffer only the first byte is known to exist.
    report_into(output, 1, [=](OutputText& text) {
        text.clear();
        auto deletion = std::make_unique<PendingTunDelete>(PendingTunDelete{family, index, name});
        // Outside the critical section: closing a TUN descriptor takes the kernel milliseconds.
        TunReference descriptor;
        {
            const PosixLock lock{state->fd_map_mutex};
            descriptor = unregister(index, family);
            state->pending_tun_deletes.push_back(std::move(deletion));
        }
        if (descriptor)
            end_device(*descriptor.operator->());
        descriptor.reset();
        state->fd_map.close_left();
        wakeup_zel_tun_packet_receive();
    });
}

} // namespace
} // namespace zel::network

using namespace zel::network;

void zel_tun_ipv4_create(char* output, size_t output_size, const char* name, int index) {
    zel_tun_create(output, output_size, name, index, AF_INET);
}

void zel_tun_ipv6_create(char* output, size_t output_size, const char* name, int index) {
    zel_tun_create(output, output_size, name, index, AF_INET6);
}

void zel_tun_ipv4_destroy(char* output, size_t, const char* name, int index) {
    zel_tun_destroy(output, name, index, AF_INET);
}

void zel_tun_ipv6_destroy(char* output, size_t, const char* name, int index) {
    zel_tun_destroy(output, name, index, AF_INET6);
}
