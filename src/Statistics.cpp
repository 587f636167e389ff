#include "Statistics.hpp"

#include "ErrorLine.hpp"

#include <zelkernel/kernel.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

static_assert(sizeof(zel_statistics_vector) == 12 && sizeof(zel_statistics_device) == 28 &&
              sizeof(zel_statistics) == 8148);

namespace {

zel_statistics private_statistics;

bool published = false;

constexpr std::uint32_t being_filled = 1;

// The descriptor stays open: it is what other processes find the file by.
zel_statistics* map_memory_file() {
    const int fd = memfd_create("zelkernel-stats", MFD_CLOEXEC);
    if (fd == -1)
        return nullptr;
    if (ftruncate(fd, sizeof(zel_statistics)) == 0) {
        void* map =
            mmap(nullptr, sizeof(zel_statistics), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (map != MAP_FAILED)
            return static_cast<zel_statistics*>(map);
    }
    close(fd);
    return nullptr;
}

} // namespace

namespace zel {

zel_statistics* statistics = &private_statistics;

void publish_statistics() {
    if (std::getenv("ZELKERNEL_STATS") == nullptr)
        return;
    zel_statistics* shared = map_memory_file();
    if (shared == nullptr) {
        zel::write_error_line("zel_kernel_init: no memory file for ZELKERNEL_STATS", errno);
        return;
    }
    *shared = *statistics;
    static_assert(sizeof kernel_priorities == sizeof shared->priorities);
    std::memcpy(shared->priorities, &kernel_priorities, sizeof kernel_priorities);
    shared->version = ZEL_STATISTICS_VERSION;
    shared->magic = ZEL_STATISTICS_MAGIC;
    statistics = shared;
    published = true;
}

bool statistics_are_published() {
    return published;
}

void count_interrupt(std::uint32_t vector) {
    for (zel_statistics_vector& slot : statistics->vectors) {
        if (slot.used == 0) {
            slot.vector = vector;
            __atomic_store_n(&slot.used, 1, __ATOMIC_RELEASE);
        }
        if (slot.vector == vector) {
            count(slot.interrupts);
            return;
        }
    }
    count(statistics->interrupts_of_other_vectors);
}

void count_tick_lateness(std::uint32_t ns) {
    statistics->lateness_last_ns = ns;
    statistics->lateness_max_ns = std::max(statistics->lateness_max_ns, ns);
    count(statistics->lateness[ns == 0 ? 0 : std::bit_width(ns) - 1]);
}

zel_statistics_device* claim_device_counters(std::uint32_t version, int index,
                                             zel_statistics_device& otherwise) {
    for (zel_statistics_device& slot : statistics->devices) {
        std::uint32_t free = 0;
        // Readers pass over a slot that is being filled.
        if (__atomic_compare_exchange_n(&slot.family, &free, being_filled, false, __ATOMIC_ACQUIRE,
                                        __ATOMIC_RELAXED)) {
            // One by one: an assignment of the whole would write the family beside other threads'
            // exchanges of it.
            slot.index = index;
            slot.received_packets = slot.received_bytes = slot.dropped_packets = 0;
            slot.sent_packets = slot.sent_bytes = 0;
            __atomic_store_n(&slot.family, version, __ATOMIC_RELEASE);
            return &slot;
        }
    }
    return &otherwise;
}

void release_device_counters(zel_statistics_device& counters) {
    __atomic_store_n(&counters.family, 0, __ATOMIC_RELEASE);
}

} // namespace zel
