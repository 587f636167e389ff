// The checksum functions against the definition, for libFuzzer and for checksum_test. An input is
// the initial value (2 bytes), where to cut the block (1), its alignment (1), the new content of a
// field (4), then the block.
#include <zelkernel/checksum.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "support/naive_checksum.hpp"

namespace {

std::uint16_t word(const std::uint8_t* at) {
    return static_cast<std::uint16_t>(at[0] << 8 | at[1]);
}

std::uint32_t two_words(const std::uint8_t* at) {
    return std::uint32_t{word(at)} << 16 | word(at + 2);
}

void require(bool held) {
    if (!held)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 12)
        return 0;
    // An initial 0xffff is left to the other tests: a block updated to zeros would then end in the
    // other zero.
    const std::uint16_t initial = word(data) & 0x7fff;
    // Its end is the end of the allocation, so that a sanitizer sees a read behind the block.
    std::vector<std::uint8_t> memory(data[3] % 64);
    memory.insert(memory.end(), data + 8, data + size);
    const int length = static_cast<int>(size) - 8;
    const int cut = std::min<int>(data[2] * 2, (length - 4) & ~1);
    std::uint8_t* const block = memory.data() + data[3] % 64;
    std::uint8_t* const field = block + cut;

    const std::uint16_t first = IpAccelerators_GeneralChecksum(block, cut, initial);
    const std::uint16_t whole = IpAccelerators_GeneralChecksum(block, length, initial);
    require(whole == naive_checksum(block, size - 8, initial));
    require(whole == IpAccelerators_GeneralChecksum(field, length - cut, first));

    // A 16-bit field changes, then the 32-bit field that it is part of.
    const auto after16 = IpAccelerators_UpdateChecksum16(whole, word(field), word(data + 6));
    std::copy_n(data + 6, 2, field);
    require(after16 == naive_checksum(block, size - 8, initial));
    const auto after32 =
        IpAccelerators_UpdateChecksum32(after16, two_words(field), two_words(data + 4));
    std::copy_n(data + 4, 4, field);
    require(after32 == naive_checksum(block, size - 8, initial));
    return 0;
}
