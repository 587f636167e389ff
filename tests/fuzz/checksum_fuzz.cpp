// The checksum functions against the definition, for libFuzzer and for checksum_test. An input is
// the initial value (2 bytes), where to cut the block (1), its alignment (1), the new content of a
// field (4), then the block.
#include "zelkernel/checksum.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "support/naive_checksum.hpp"

namespace {

std::uint32_t bigEndian(const std::uint8_t* at, int bytes) {
    std::uint32_t value = 0;
    for (int i = 0; i < bytes; ++i) {
        value = value << 8 | at[i];
    }
    return value;
}

void require(bool held) {
    if (!held) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 12) {
        return 0;
    }
    // An initial 0xffff is left to the other tests: a block updated to zeros would then end in the
    // other zero.
    const auto initial = static_cast<std::uint16_t>(bigEndian(data, 2) & 0x7fff);
    const std::size_t alignment = data[3] % 64;
    // Its end is the end of the allocation, so that a sanitizer sees a read behind the block.
    std::vector<std::uint8_t> memory(alignment);
    memory.insert(memory.end(), data + 8, data + size);
    std::uint8_t* const block = memory.data() + alignment;
    const int length = static_cast<int>(size) - 8;
    const int cut = std::min<int>(data[2] * 2, (length - 4) & ~1);

    const std::uint16_t first = IpAccelerators_GeneralChecksum(block, cut, initial);
    const std::uint16_t whole = IpAccelerators_GeneralChecksum(block, length, initial);
    require(whole == naiveChecksum(block, size - 8, initial));
    require(whole == IpAccelerators_GeneralChecksum(block + cut, length - cut, first));

    // A 16-bit field changes, then the 32-bit field that it is part of.
    const auto new16 = static_cast<std::uint16_t>(bigEndian(data + 6, 2));
    const std::uint16_t after16 = IpAccelerators_UpdateChecksum16(
        whole, static_cast<std::uint16_t>(bigEndian(block + cut, 2)), new16);
    std::copy_n(data + 6, 2, block + cut);
    require(after16 == naiveChecksum(block, size - 8, initial));
    const std::uint16_t after32 =
        IpAccelerators_UpdateChecksum32(after16, bigEndian(block + cut, 4), bigEndian(data + 4, 4));
    std::copy_n(data + 4, 4, block + cut);
    require(after32 == naiveChecksum(block, size - 8, initial));
    return 0;
}
