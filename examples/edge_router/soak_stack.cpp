#include "soak_stack.hpp"

#include "lateness.hpp"
#include "priorities.hpp"
#include "soak_message.hpp"
#include "soak_watch.hpp"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <netinet/in.h>
#include <zelkernel/checksum.h>
#include <zelkernel/tun.h>

namespace soak {

namespace {

std::atomic<long> out{0};

// Where things are in a packet with UDP inside.
struct Layout {
    std::size_t protocol, addresses, address_size, udp;
};
constexpr Layout ipv4_layout{9, 12, 4, 20};
constexpr Layout ipv6_layout{6, 8, 16, 40};
constexpr std::size_t udp_header = 8;

std::uint16_t word_at(const unsigned char* bytes) {
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

void put_word(unsigned char* bytes, std::uint16_t word) {
    bytes[0] = static_cast<unsigned char>(word >> 8);
    bytes[1] = static_cast<unsigned char>(word);
}

// 0 when the packet's own checksum is right.
std::uint16_t udp_checksum(const unsigned char* packet, const Layout& layout, int udp_length) {
    unsigned char rest[4] = {0, IPPROTO_UDP};
    put_word(rest + 2, static_cast<std::uint16_t>(udp_length));
    const int addresses = static_cast<int>(2 * layout.address_size);
    std::uint16_t sum =
        IpAccelerators_GeneralChecksum(packet + layout.addresses, addresses, 0xffff);
    sum = IpAccelerators_GeneralChecksum(rest, sizeof rest, sum);
    return IpAccelerators_GeneralChecksum(packet + layout.udp, udp_length, sum);
}

// Addresses and ports change places, which leaves the sums as they are; the other changes update
// them. Linux drops a packet whose sums are wrong, and its peer misses it.
void turn_round(unsigned char* packet, const Layout& layout, std::uint16_t answer) {
    const auto swap = [packet](std::size_t at, std::size_t size) {
        std::swap_ranges(packet + at, packet + at + size, packet + at + size);
    };
    swap(layout.addresses, layout.address_size);
    swap(layout.udp, 2);
    unsigned char* const field = packet + layout.udp + udp_header + offsetof(MessageHeader, answer);
    unsigned char* const sum = packet + layout.udp + 6;
    const std::uint16_t old_value = word_at(field);
    std::memcpy(field, &answer, sizeof answer);
    const std::uint16_t updated =
        IpAccelerators_UpdateChecksum16(word_at(sum), old_value, word_at(field));
    put_word(sum, updated == 0 ? 0xffff : updated);
    if (layout.address_size == ipv4_layout.address_size) {
        const std::uint16_t old_hops = word_at(packet + 8);
        --packet[8];
        put_word(packet + 10, IpAccelerators_UpdateChecksum16(word_at(packet + 10), old_hops,
                                                              word_at(packet + 8)));
    }
}

// Receive thread only.
void note_longest(std::atomic<std::int64_t>& longest, std::int64_t ns) {
    longest = std::max(longest.load(), ns);
}

// While the load runs there is always a packet on its way.
void note_reception() {
    static std::int64_t last = 0;
    const std::int64_t now = now_ns();
    if (last != 0 && !stopping()) {
        note_longest(figures.longest_gap_ns, now - last);
    }
    last = now;
}

void echo(int index, unsigned char* packet, std::size_t length) {
    const bool is_v4 = packet[0] >> 4 == 4;
    const Layout& layout = is_v4 ? ipv4_layout : ipv6_layout;
    if (length < layout.udp + udp_header || packet[layout.protocol] != IPPROTO_UDP) {
        return; // Linux talks of its own accord, too
    }
    const std::size_t udp_length = length - layout.udp;
    MessageHeader header;
    if ((is_v4 && IpAccelerators_HeaderOnlyChecksum(packet) != 0) ||
        udp_checksum(packet, layout, static_cast<int>(udp_length)) != 0 ||
        !read_message({packet + layout.udp + udp_header, udp_length - udp_header}, header)) {
        fault("a packet of " + std::to_string(length) + " bytes from interface " +
              std::to_string(index) + " is damaged");
        return;
    }
    if (header.flow / 2 != static_cast<std::uint32_t>(index)) {
        fault("interface " + std::to_string(index) + " received a packet of interface " +
              std::to_string(header.flow / 2));
    }
    turn_round(packet, layout, static_cast<std::uint16_t>(index));
    const std::int64_t begin = now_ns();
    (is_v4 ? zel_tun_ipv4_packet_send : zel_tun_ipv6_packet_send)(index, packet, length);
    note_longest(figures.longest_send_ns, now_ns() - begin);
}

void alloc_buffer(void** handle, void** data, int size) {
    if (size < smallest_mtu || size > largest_mtu) {
        fault("a buffer of " + std::to_string(size) + " bytes was asked for, which is no MTU");
    }
    *handle = *data = std::malloc(static_cast<std::size_t>(size));
    ++out;
}

void free_buffer(void* handle) {
    std::free(handle);
    --out;
}

void receive(int index, void* handle, int length) {
    note_reception();
    if (length > 0) {
        echo(index, static_cast<unsigned char*>(handle), static_cast<std::size_t>(length));
    }
    free_buffer(handle);
}

} // namespace

void start_echo() {
    zel_tun_packet_init(receive, alloc_buffer, free_buffer, priority::packet_receive);
}

long buffers_out() {
    return out;
}

} // namespace soak
