// Creation and destruction of TUN devices.
#include "Commands.hpp"
#include "OutputText.hpp"
#include "PosixLock.hpp"
#include "ReceiveWakeup.hpp"
#include "State.hpp"

#include <zelkernel/tun.h>

#include <cstring>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

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

// Null, with the reason in `output`, when the device cannot be opened.
SharedTunDescriptor open_device(OutputText& output, const std::string& device) {
    auto descriptor = SharedTunDescriptor::make();
    if (!descriptor->open()) {
        output.append("Unable to open %s.\r\n", tun_driver);
        return nullptr;
    }
    if (descriptor->number() >= FD_SETSIZE) {
        output.append("Descriptor %d is too large for %s\r\n", descriptor->number(),
                      device.c_str());
        return nullptr;
    }
    if (!attach_to_device(descriptor->number(), device)) {
        output.append("ioctl() failed for %s\r\n", device.c_str());
        return nullptr;
    }
    return descriptor;
}

// The entries of a new device, made ahead: entering them cannot fail half way.
class Registration {
public:
    Registration(int family, int index, const SharedTunDescriptor& descriptor)
        : family_(family), fd_(descriptor->number()), vrf_tun_{{family, fd_, index}} {
        by_fd_.emplace(fd_, TunFdInfo{index, default_mtu, descriptor});
        by_index_.emplace(index, descriptor);
    }

    // An index that is known already keeps its earlier descriptor.
    void enter(const char* name) {
        const PosixLock lock{state->fd_map_mutex};
        const auto instance = state->vrf_map.find(name);
        if (instance != state->vrf_map.end())
            instance->second.splice(instance->second.end(), vrf_tun_);
        state->fd_map.merge(by_fd_);
        state->tun_fds(family_).merge(by_index_);
        state->watch(fd_);
    }

private:
    int family_;
    int fd_;
    std::list<VrfTun> vrf_tun_;
    std::map<int, TunFdInfo> by_fd_;
    TunFds by_index_;
};

void zel_tun_create(char* output, size_t output_size, const char* name, int index, int family) {
    report_into(output, output_size, [=](OutputText& text) {
        const std::string device = device_name(family, index);
        text.run("ip tuntap add dev " + device + " mode tun 2>&1");
        const SharedTunDescriptor descriptor = open_device(text, device);
        if (descriptor == nullptr)
            return;
        descriptor->count_as(family, index);
        Registration registration{family, index, descriptor};
        text.run("ip link set dev " + device + " netns \"" + name + "\" 2>&1");
        registration.enter(name);
        wakeup_zel_tun_packet_receive();
    });
}

// Not by the name that the caller gives: an entry left in another instance's list would stand for
// whatever device gets the descriptor's number next.
void forget_in_its_instance(int fd) {
    for (auto& [name, devices] : state->vrf_map)
        devices.remove_if([fd](const VrfTun& device) { return device.fd == fd; });
}

// Takes the device out of the state and hands over its descriptor; null when it is not registered.
SharedTunDescriptor unregister(int index, int family) {
    TunFds& tun_fds = state->tun_fds(family);
    const auto found = tun_fds.find(index);
    if (found == tun_fds.end())
        return nullptr;
    SharedTunDescriptor descriptor = std::move(found->second);
    forget_in_its_instance(descriptor->number());
    tun_fds.erase(found);
    state->fd_map.erase(descriptor->number());
    state->unwatch(descriptor->number());
    return descriptor;
}

void zel_tun_destroy(char* output, const char* name, int index, int family) {
    // Of this buffer only the first byte is known to exist.
    report_into(output, 1, [=](OutputText& text) {
        text.clear();
        std::list<PendingTunDelete> deletion{{family, index, name}};
        // Outside the critical section: closing a TUN descriptor takes the kernel milliseconds.
        SharedTunDescriptor descriptor;
        {
            const PosixLock lock{state->fd_map_mutex};
            descriptor = unregister(index, family);
            state->pending_tun_deletes.splice(state->pending_tun_deletes.end(), deletion);
            state->changed();
        }
        if (descriptor != nullptr)
            descriptor->end_device_with_descriptor();
        descriptor = nullptr;
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
