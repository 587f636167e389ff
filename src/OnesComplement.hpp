// One's complement arithmetic on sums of 16-bit words in native byte order.
//
// Such a sum may be taken in words of any width, since 2^16, 2^32 and 2^64 are all 1 modulo 65535,
// and in either byte order, since swapping the bytes of each word swaps those of the sum (RFC
// 1071). Zero is kept apart from 0xFFFF, its other representation: a sum is 0 only when every word
// is.
#pragma once

#include <bit>
#include <cstdint>

namespace zel {

static_assert(std::endian::native == std::endian::little,
              "an odd last byte is added as the lower half of a word");

// Both add the upper half to the lower one, with the end-around carry.
constexpr std::uint16_t fold_to_16(std::uint32_t sum) {
    return static_cast<std::uint16_t>((sum + std::rotl(sum, 16)) >> 16);
}
constexpr std::uint16_t fold_to_16(std::uint64_t sum) {
    return fold_to_16(static_cast<std::uint32_t>((sum + std::rotl(sum, 32)) >> 32));
}

constexpr std::uint16_t swap_bytes(std::uint16_t word) {
    return __builtin_bswap16(word);
}

} // namespace zel
