// The Internet checksum, for the application's IP stack.
#include "zelkernel/checksum.h"

#include "OnesComplementSum.hpp"

namespace {

// Continues `initial` over a block; the sum is taken in native byte order.
inline std::uint16_t checksum(const void* data, std::size_t length, std::uint16_t initial) {
    const auto start = zel::swapBytes(static_cast<std::uint16_t>(~initial));
    const auto sum = zel::onesComplementSum(start, static_cast<const unsigned char*>(data), length);
    return zel::swapBytes(static_cast<std::uint16_t>(~sum));
}

} // namespace

extern "C" {

std::uint16_t IpAccelerators_GeneralChecksum(const void* data, int length, std::uint16_t initial) {
    if (length <= 0) {
        return initial;
    }
    return checksum(data, static_cast<std::size_t>(length), initial);
}

std::uint16_t IpAccelerators_HeaderOnlyChecksum(const void* header) {
    const unsigned words = *static_cast<const unsigned char*>(header) & 0x0fU;
    return checksum(header, words * std::size_t{4}, 0xffff);
}

std::uint16_t IpAccelerators_UpdateChecksum16(std::uint16_t checksum, std::uint16_t old_value,
                                              std::uint16_t new_value) {
    const std::uint32_t sum =
        (~std::uint32_t{checksum} & 0xffff) + (~std::uint32_t{old_value} & 0xffff) + new_value;
    return static_cast<std::uint16_t>(~zel::foldTo16(sum));
}

std::uint16_t IpAccelerators_UpdateChecksum32(std::uint16_t checksum, std::uint32_t old_value,
                                              std::uint32_t new_value) {
    const std::uint32_t sum = (new_value & 0xffff) + (new_value >> 16) + (~old_value & 0xffff) +
                              (~old_value >> 16) + (~std::uint32_t{checksum} & 0xffff);
    return static_cast<std::uint16_t>(~zel::foldTo16(sum));
}

} // extern "C"
