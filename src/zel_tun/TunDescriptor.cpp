#include "TunDescriptor.hpp"

#include "Statistics.hpp"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace zel::network {

namespace {

// Where devices count that have no place among the published counters.
zel_statistics_device uncounted;

} // namespace

TunDescriptor::TunDescriptor() : counters_(&uncounted) {}

bool TunDescriptor::open() {
    fd_ = ::open(tun_driver, O_RDWR | O_CLOEXEC);
    return fd_ != -1;
}

void TunDescriptor::count_as(int family, int index) {
    counters_ = claim_device_counters(family == AF_INET ? 4 : 6, index, uncounted);
}

void TunDescriptor::end_device_with_descriptor() const {
    ioctl(fd_, TUNSETPERSIST, 0);
}

TunDescriptor::~TunDescriptor() {
    if (counters_ != &uncounted)
        release_device_counters(*counters_);
    if (fd_ != -1 && !keep_open_)
        close(fd_);
}

} // namespace zel::network
