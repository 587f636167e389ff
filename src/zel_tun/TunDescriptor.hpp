// The descriptors of TUN devices: found by interface index and kept open by whoever uses them, both
// without a lock. A packet never waits for a configuration that holds fd_map_mutex across commands.
//
// Three kinds of things, none of which is ever freed:
// - A TunDescriptor for each number that select() can take, at its place in FdMap. It stands for an
//   open descriptor while its count of references is not 0.
// - A TunFds for each family: a hash table of fixed size from interface index to such a number.
// - A TunReference: one count, held by its creator, then by the registration in FdMap, by the
//   receive thread as long as it waits for the device, and by each send for its write().
//
// Who writes: registration, removal and the tables change under fd_map_mutex alone. Counts change
// anywhere. What a descriptor is (number, index, counters) is written between the opening of its
// number and the first reference, when nobody else can have either.
//
// Why a reader is right without a lock:
// 1. Nothing a lookup touches is ever freed, so an outdated entry leads to an outdated
//    TunDescriptor, not to foreign memory.
// 2. try_acquire() never raises a count from 0. With the reference, the descriptor stays open, its
//    number is not given out again, and so the TunDescriptor cannot come to stand for another.
// 3. The count goes from 0 to 1 with release order after the fields are written; who raises it
//    later acquires them. (A count is only changed by read-modify-write in between, which continues
//    the release sequence.) So nobody reads a device half made.
// 4. A lookup looks at its table entry again once it has the reference. At that moment the table
//    maps the index to this very descriptor, or else the lookup gives the reference back and goes
//    on: the number has come to stand for another device meanwhile, perhaps one of the same index
//    and the other family. Removal from the table comes before anything else is undone.
// 5. An entry never moves. A lookup passes removed entries and ends at one that was never used; a
//    removed one becomes unused again only when nothing can lie beyond it (see TunFds::erase). So
//    a lookup never misses a device that is there all the time, and one that finds nothing is right
//    for a moment within it.
// 6. The last reference to go closes the descriptor. Between the count's fall to 0 and close() the
//    number is still taken; after it the closing thread touches nothing.
// 7. A sender never closes: it takes Linux tens of milliseconds to let go of a device. It leaves
//    that to the receive thread, or, where there is none, to the next destruction.
// A thread that is cancelled in write() gives its reference back as it unwinds. One that is stopped
// for ever keeps one descriptor open, and nobody else waits. Any number of threads may send; the
// table cannot fill up, because half as many numbers exist as it has entries. Nothing wider than 32
// bits is accessed atomically.
#pragma once

#include "Chain.hpp"

#include <zelkernel/statistics.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <sys/select.h>
#include <utility>

namespace zel::network {

inline constexpr const char* tun_driver = "/dev/net/tun";
inline constexpr int default_mtu = 1500;

class TunDescriptor {
public:
    // Of whoever holds a reference.
    int number() const { return number_; }
    int ip_version() const { return ip_version_; }
    int index() const { return index_.load(std::memory_order_relaxed); }
    void count_sent(std::uint32_t bytes) const;
    zel_statistics_device& counters() const { return *counters_; }

    int mtu() const { return mtu_.load(std::memory_order_relaxed); }
    void set_mtu(int mtu) { mtu_.store(mtu, std::memory_order_relaxed); }

    // Whether somebody else has a reference, too.
    bool is_shared() const { return references_.load(std::memory_order_relaxed) > 1; }

    // From here on the device ends with its last open descriptor.
    void end_device_with_descriptor() const;

    // Leaves the descriptor open for the process's life. Under the module's lock.
    void keep_open() { keep_open_ = true; }

private:
    friend class FdMap;
    friend class TunReference;
    friend class TunFds;
    friend class Chain<TunDescriptor>;

    void adopt(int number, int family, int index);
    bool try_acquire();
    void release();
    // True when it was the last reference: close_number() is the caller's to see to.
    bool drop() { return references_.fetch_sub(1, std::memory_order_acq_rel) == 1; }
    void close_number();

    std::atomic<std::uint32_t> references_{0};
    std::atomic<std::uint32_t> is_registered_{0};
    std::atomic<int> index_{0}; // also read by lookups that have no reference yet
    std::atomic<int> mtu_{0};
    int number_ = -1;
    std::uint8_t ip_version_ = 0;
    bool keep_open_ = false;
    zel_statistics_device* counters_ = nullptr;
    TunDescriptor* next = nullptr; // of those left to be closed
};

// Owns one reference, or none.
class TunReference {
public:
    TunReference() = default;
    TunReference(TunReference&& other) noexcept
        : descriptor_(std::exchange(other.descriptor_, nullptr)) {}
    TunReference& operator=(TunReference&& other) noexcept {
        std::swap(descriptor_, other.descriptor_);
        return *this;
    }
    ~TunReference() { reset(); }

    void reset() {
        if (descriptor_ != nullptr)
            std::exchange(descriptor_, nullptr)->release();
    }
    explicit operator bool() const { return descriptor_ != nullptr; }
    TunDescriptor* operator->() const { return descriptor_; }

private:
    friend class FdMap;
    friend class TunFds;

    explicit TunReference(TunDescriptor* owned) : descriptor_(owned) {}

    TunDescriptor* descriptor_ = nullptr;
};

// Every TUN descriptor by its number. The registered ones are what the receive thread reads.
class FdMap {
public:
    // Makes an open descriptor below FD_SETSIZE one of ours, closed with the last reference.
    TunReference adopt(int number, int family, int index);

    // Null when nothing is registered at that number. Any thread.
    TunReference acquire(int number);
    bool is_registered(int number) const {
        return descriptors_[number].is_registered_.load(std::memory_order_acquire) != 0;
    }

    // Under the module's lock; the number stands in a table, or the caller has looked.
    TunDescriptor& at(int number) { return descriptors_[number]; }
    void insert(TunReference descriptor);
    TunReference erase(int number);

    // A sender's way to give its reference back. If it was the last, the descriptor stays open
    // until close_left(), which may take long and for which the receive thread is woken.
    void leave(TunReference& reference) { leave(std::exchange(reference.descriptor_, nullptr)); }
    void close_left();

private:
    friend class TunFds;

    void leave(TunDescriptor* descriptor);

    TunDescriptor descriptors_[FD_SETSIZE];
    Chain<TunDescriptor> left_;
};

// Interface index to descriptor, of one family.
class TunFds {
public:
    explicit TunFds(FdMap& fd_map) : fd_map_(fd_map) {}

    // What a send goes to; null when there is no such device. Any thread.
    TunReference acquire(int index) const;

    // Under the module's lock. An index that is known keeps its number; -1 when it is not known.
    void insert(int index, int number);
    int find(int index) const;
    void erase(int index);

private:
    using Entry = std::uint16_t; // unused, removed, or a number and first_number
    static constexpr Entry unused = 0, removed = 1, first_number = 2;
    static constexpr unsigned log2_size = 11, size = 1U << log2_size;
    static_assert(size >= 2 * FD_SETSIZE);

    static unsigned first_position(int index);
    static unsigned next(unsigned position) { return (position + 1) % size; }
    TunDescriptor& descriptor(Entry entry) const {
        return fd_map_.descriptors_[entry - first_number];
    }
    // The position of the index's entry, else `size`.
    unsigned position_of(int index) const;

    FdMap& fd_map_;
    std::array<std::atomic<Entry>, size> entries_{};
};

} // namespace zel::network
