// A routing instance with TUN devices, for the measuring programs of the data path.
#pragma once

#include "Measure.hpp"

#include <zelkernel/routing.h>
#include <zelkernel/tun.h>

#include <arpa/inet.h>
#include <array>
#include <fcntl.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace bench {

constexpr std::size_t largest_packet = 1500;

struct Device {
    int fd;        // the library's own descriptor
    int interface; // Linux's number of the device, in the instance's namespace
};

class TunInstance {
public:
    explicit TunInstance(const char* name) : name_(name) {
        zel_vrf_create(nullptr, 0, name_);
        in_namespace([this] {
            // Linux would send packets of its own through the devices, and mistrust the packets'
            // source.
            write_setting("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");
            write_setting("/proc/sys/net/ipv4/conf/all/rp_filter", "0");
            write_setting("/proc/sys/net/ipv4/conf/default/rp_filter", "0");
            packet_socket_ = socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            require(packet_socket_ != -1, "packet socket");
        });
    }

    template<typename Action>
    void in_namespace(const Action& action) const {
        const int home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        const int there = open((std::string{"/run/netns/"} + name_).c_str(), O_RDONLY | O_CLOEXEC);
        require(setns(there, CLONE_NEWNET) == 0, "setns");
        action();
        require(setns(home, CLONE_NEWNET) == 0, "setns back");
        close(home);
        close(there);
    }

    // So many in all, up, with the indices from 0 on.
    void create_devices(std::size_t count) {
        while (devices_.size() < count) {
            const int index = static_cast<int>(devices_.size());
            char output[512] = "";
            zel_tun_ipv4_create(output, sizeof output, name_, index);
            zel_tun_ipv4_status(nullptr, 0, name_, index, true);
            ifreq request{};
            const std::string name = "tun4_" + std::to_string(index);
            name.copy(request.ifr_name, IFNAMSIZ - 1);
            const int fd = descriptor_of(name);
            const bool found = fd != -1 && ioctl(packet_socket_, SIOCGIFINDEX, &request) == 0;
            require(found, output);
            devices_.push_back({fd, request.ifr_ifindex});
        }
    }

    const std::vector<Device>& devices() const { return devices_; }

    // For the receive thread to read.
    void queue_packet(const Device& device, std::size_t size) const {
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_IP);
        address.sll_ifindex = device.interface;
        static const std::array<unsigned char, largest_packet> packet{0x45};
        const auto sent = sendto(packet_socket_, packet.data(), size, 0,
                                 reinterpret_cast<const sockaddr*>(&address), sizeof address);
        require(sent == static_cast<ssize_t>(size), "sendto");
    }

private:
    // Where the machine has no such setting, it needs none.
    static void write_setting(const char* path, const char* value) {
        const int fd = open(path, O_WRONLY | O_CLOEXEC);
        require(fd == -1 || write(fd, value, 1) == 1, path);
        close(fd);
    }

    static int descriptor_of(const std::string& name) {
        for (int fd = 0; fd < FD_SETSIZE; ++fd) {
            ifreq request{};
            if (ioctl(fd, TUNGETIFF, &request) == 0 && name == request.ifr_name)
                return fd;
        }
        return -1;
    }

    const char* name_;
    int packet_socket_ = -1;
    std::vector<Device> devices_;
};

} // namespace bench
