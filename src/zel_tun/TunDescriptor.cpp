#include "TunDescriptor.hpp"

#include "ReceiveWakeup.hpp"
#include "Statistics.hpp"

#include <linux/if_tun.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace zel::network {
namespace {

// Where devices count that have no place among the published counters.
zel_statistics_device uncounted;

} // namespace

// Acquires what the thread that closed the number before has released.
void TunDescriptor::adopt(int number, int family, int index) {
    [[maybe_unused]] const auto none = references_.load(std::memory_order_acquire);
    number_ = number;
    keep_open_ = false;
    ip_version_ = family == AF_INET ? 4 : 6;
    counters_ = claim_device_counters(ip_version_, index, uncounted);
    index_.store(index, std::memory_order_relaxed);
    mtu_.store(default_mtu, std::memory_order_relaxed);
    references_.store(1, std::memory_order_release);
}

bool TunDescriptor::try_acquire() {
    std::uint32_t count = references_.load(std::memory_order_relaxed);
    while (count != 0) {
        if (references_.compare_exchange_weak(count, count + 1, std::memory_order_acquire,
                                              std::memory_order_relaxed))
            return true;
    }
    return false;
}

void TunDescriptor::release() {
    if (drop())
        close_number();
}

void TunDescriptor::close_number() {
    if (counters_ != &uncounted)
        release_device_counters(*counters_);
    if (keep_open_)
        return;
    const int number = number_;
    references_.store(0, std::memory_order_release);
    close(number);
}

// Senders share the counters, so these take an addition in one piece.
void TunDescriptor::count_sent(std::uint32_t bytes) const {
    __atomic_fetch_add(&counters_->sent_packets, 1, __ATOMIC_RELAXED);
    __atomic_fetch_add(&counters_->sent_bytes, bytes, __ATOMIC_RELAXED);
}

void TunDescriptor::end_device_with_descriptor() const {
    ioctl(number_, TUNSETPERSIST, 0);
}

TunReference FdMap::adopt(int number, int family, int index) {
    descriptors_[number].adopt(number, family, index);
    return TunReference{&descriptors_[number]};
}

TunReference FdMap::acquire(int number) {
    if (!is_registered(number) || !descriptors_[number].try_acquire())
        return {};
    TunReference found{&descriptors_[number]};
    // Again, as in a table: what stands here now, with the reference, stays.
    return is_registered(number) ? std::move(found) : TunReference{};
}

void FdMap::insert(TunReference descriptor) {
    std::exchange(descriptor.descriptor_, nullptr)
        ->is_registered_.store(1, std::memory_order_release);
}

TunReference FdMap::erase(int number) {
    descriptors_[number].is_registered_.store(0, std::memory_order_release);
    return TunReference{&descriptors_[number]};
}

void FdMap::leave(TunDescriptor* descriptor) {
    if (!descriptor->drop()) [[likely]]
        return;
    left_.add(descriptor);
    wakeup_zel_tun_packet_receive();
}

void FdMap::close_left() {
    TunDescriptor* left = left_.take_all();
    while (left != nullptr)
        std::exchange(left, left->next)->close_number();
}

// Multiplied by the golden ratio: indices in a row, or with a common factor, scatter.
unsigned TunFds::first_position(int index) {
    return (static_cast<std::uint32_t>(index) * 2654435769U) >> (32 - log2_size);
}

TunReference TunFds::acquire(int index) const {
    unsigned position = first_position(index);
    for (unsigned steps = 0; steps < size; ++steps, position = next(position)) {
        const Entry entry = entries_[position].load(std::memory_order_acquire);
        if (entry == unused)
            return {};
        if (entry == removed || descriptor(entry).index() != index ||
            !descriptor(entry).try_acquire())
            continue;
        TunDescriptor* const found = &descriptor(entry);
        if (entries_[position].load(std::memory_order_acquire) == entry && found->index() == index)
            return TunReference{found};
        fd_map_.leave(found);
    }
    return {};
}

unsigned TunFds::position_of(int index) const {
    unsigned position = first_position(index);
    for (unsigned steps = 0; steps < size; ++steps, position = next(position)) {
        const Entry entry = entries_[position].load(std::memory_order_relaxed);
        if (entry == unused)
            return size;
        if (entry != removed && descriptor(entry).index() == index)
            return position;
    }
    return size;
}

int TunFds::find(int index) const {
    const unsigned position = position_of(index);
    if (position == size)
        return -1;
    return entries_[position].load(std::memory_order_relaxed) - first_number;
}

void TunFds::insert(int index, int number) {
    if (position_of(index) != size)
        return;
    unsigned position = first_position(index);
    while (entries_[position].load(std::memory_order_relaxed) > removed)
        position = next(position);
    entries_[position].store(static_cast<Entry>(number + first_number), std::memory_order_release);
}

// The removed entries before an unused one become unused: an index that lay beyond one of them
// would have its entry before the unused one, and there is none left. Without this, hours of coming
// and going devices would make each lookup of an unknown index walk the whole table.
void TunFds::erase(int index) {
    unsigned position = position_of(index);
    if (position == size)
        return;
    entries_[position].store(removed, std::memory_order_release);
    if (entries_[next(position)].load(std::memory_order_relaxed) != unused)
        return;
    while (entries_[position].load(std::memory_order_relaxed) == removed) {
        entries_[position].store(unused, std::memory_order_release);
        position = (position + size - 1) % size;
    }
}

} // namespace zel::network
