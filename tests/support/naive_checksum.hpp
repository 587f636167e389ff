// The Internet checksum as it is defined, word by word.
#pragma once

#include <cstddef>
#include <cstdint>

inline std::uint16_t naive_checksum(const std::uint8_t* data, std::size_t length,
                                    std::uint16_t initial) {
    std::uint64_t sum = 0xffffU - initial;
    for (std::size_t i = 0; i < length; ++i)
        sum += i % 2 == 0 ? data[i] * 256U : data[i];
    while (sum > 0xffff)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<std::uint16_t>(0xffff - sum);
}
