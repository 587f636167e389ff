// What the peers of the soak send each other inside UDP: a header and checksummed content.
#pragma once

#include "content.hpp"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>

namespace soak {

struct MessageHeader {
    std::uint32_t flow;
    std::uint32_t sequence;
    std::uint64_t checksum;  // of the content
    std::uint16_t answer;    // 0 on the way to the IP stack, which enters the interface's index
    std::uint16_t unused[3]; // keeps the size a multiple of the alignment
};

// With the largest IP header of the soak, a packet that every MTU that it sets lets through.
inline constexpr std::size_t largest_message = 1280 - 48;

using MessageBytes = std::span<unsigned char>;

inline std::uint64_t checksum_of(const MessageHeader& header, MessageBytes message) {
    Checksum checksum;
    checksum.add({reinterpret_cast<const unsigned char*>(&header.flow), 2 * sizeof header.flow});
    checksum.add(message.subspan(sizeof header));
    return checksum.value();
}

inline void write_message(MessageBytes message, std::uint32_t flow, std::uint32_t sequence) {
    Content{std::to_string(flow) + "/" + std::to_string(sequence)}.fill(message);
    MessageHeader header{flow, sequence, 0, 0, {}};
    header.checksum = checksum_of(header, message);
    std::memcpy(message.data(), &header, sizeof header);
}

// The header of a message that is whole; false when it is not.
inline bool read_message(MessageBytes message, MessageHeader& header) {
    if (message.size() < sizeof header) {
        return false;
    }
    std::memcpy(&header, message.data(), sizeof header);
    return header.checksum == checksum_of(header, message);
}

} // namespace soak
