// The bytes that the HTTP servers hand out: endless, and different for each instance.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

// FNV-1a, 64 bits.
class Checksum {
public:
    void add(std::span<const unsigned char> bytes) {
        for (const unsigned char byte : bytes) {
            value_ = (value_ ^ byte) * 0x100000001b3U;
        }
    }
    std::uint64_t value() const { return value_; }

private:
    std::uint64_t value_ = 0xcbf29ce484222325U;
};

// The same bytes for the same owner, in whatever portions they are taken.
class Content {
public:
    explicit Content(std::string_view owner) {
        Checksum seed;
        seed.add({reinterpret_cast<const unsigned char*>(owner.data()), owner.size()});
        state_ = seed.value();
    }
    void fill(std::span<unsigned char> bytes) {
        for (unsigned char& byte : bytes) {
            state_ = state_ * 6364136223846793005U + 1442695040888963407U;
            byte = static_cast<unsigned char>(state_ >> 56);
        }
    }

private:
    std::uint64_t state_;
};
