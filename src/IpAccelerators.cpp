// The Internet checksum for the application's IP stack.
#include "OnesComplement.hpp"
#if defined(__arm__)
#include "OnesComplementSumArm.hpp"
#else
#include "OnesComplementSumWide.hpp"
#endif

#include <zelkernel/checksum.h>

namespace {

std::uint16_t complement(std::uint16_t value) {
    return static_cast<std::uint16_t>(~value);
}

// Continues the checksum `initial` over `length` bytes (at least 1).
std::uint16_t continue_over(const unsigned char* data, std::size_t length, std::uint16_t initial) {
    const std::uint16_t start = zel::swap_bytes(complement(initial));
    return zel::swap_bytes(complement(zel::ones_complement_sum(start, data, length)));
}

} // namespace

std::uint16_t IpAccelerators_GeneralChecksum(const void* data, int length, std::uint16_t initial) {
    if (length <= 0)
        return initial;
    return continue_over(static_cast<const unsigned char*>(data), static_cast<std::size_t>(length),
                         initial);
}

std::uint16_t IpAccelerators_HeaderOnlyChecksum(const void* header) {
    const auto* const bytes = static_cast<const unsigned char*>(header);
    const std::size_t words = *bytes & 0x0f;
    return words == 0 ? 0xffff : continue_over(bytes, words * 4, 0xffff);
}

std::uint16_t IpAccelerators_UpdateChecksum16(std::uint16_t checksum, std::uint16_t old_value,
                                              std::uint16_t new_value) {
    return complement(
        zel::fold_to_16(std::uint32_t{complement(checksum)} + complement(old_value) + new_value));
}

std::uint16_t IpAccelerators_UpdateChecksum32(std::uint16_t checksum, std::uint32_t old_value,
                                              std::uint32_t new_value) {
    return complement(zel::fold_to_16((new_value & 0xffff) + (new_value >> 16) +
                                      (~old_value & 0xffff) + (~old_value >> 16) +
                                      complement(checksum)));
}
