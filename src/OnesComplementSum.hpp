// One's complement sums of 16-bit words in native byte order.
//
// Such a sum may be taken in words of any width, as 2^16, 2^32 and 2^64 are all 1 modulo 65535, and
// in either byte order, as swapping the bytes of each word swaps those of the sum (RFC 1071). Both
// hold for the value 0, too: each step below gives 0 only when all its input is 0.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zel {

static_assert(std::endian::native == std::endian::little);

// Adds the upper half of `sum` to its lower half, with the end-around carry.
constexpr std::uint16_t foldTo16(std::uint32_t sum) {
    return static_cast<std::uint16_t>((sum + std::rotl(sum, 16)) >> 16);
}
constexpr std::uint32_t foldTo32(std::uint64_t sum) {
    return static_cast<std::uint32_t>((sum + std::rotl(sum, 32)) >> 32);
}
#ifdef __SIZEOF_INT128__
constexpr std::uint64_t foldTo64(unsigned __int128 sum) {
    return static_cast<std::uint64_t>((sum + (sum >> 64 | sum << 64)) >> 64);
}
#endif
constexpr std::uint16_t swapBytes(std::uint16_t word) {
    return __builtin_bswap16(word);
}

template<typename Word>
inline Word load(const unsigned char* at) {
    Word word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

#if defined(__arm__)

// Continues `sum` over the `blocks` (at least 1) times 32 bytes at `at`, which is 4-byte aligned.
// The carry flag lives on from block to block, so nothing in the loop but the additions may set it.
inline std::uint32_t sumBlocks(const unsigned char*& at, std::size_t blocks, std::uint32_t sum) {
    const unsigned char* const end = at + blocks * 32;
    asm("    adds    %[sum], %[sum], #0\n" // clears the carry
        "1:  ldmia   %[at]!, {r3, r4, r5, r6, r8, r9, r10, r12}\n"
        "    adcs    %[sum], %[sum], r3\n"
        "    adcs    %[sum], %[sum], r4\n"
        "    adcs    %[sum], %[sum], r5\n"
        "    adcs    %[sum], %[sum], r6\n"
        "    adcs    %[sum], %[sum], r8\n"
        "    adcs    %[sum], %[sum], r9\n"
        "    adcs    %[sum], %[sum], r10\n"
        "    adcs    %[sum], %[sum], r12\n"
        "    teq     %[at], %[end]\n"
        "    bne     1b\n"
        "    adcs    %[sum], %[sum], #0\n"
        "    adc     %[sum], %[sum], #0\n"
        : [at] "+&r"(at), [sum] "+&r"(sum)
        : [end] "r"(end)
        // r7 and r11 are left out: one of them is the frame pointer.
        : "r3", "r4", "r5", "r6", "r8", "r9", "r10", "r12", "cc", "memory");
    return sum;
}

// Two bytes or more can only be loaded at addresses that are multiples of their size.
template<typename Word>
inline Word take(const unsigned char*& at) {
    Word word;
    std::memcpy(&word, __builtin_assume_aligned(at, sizeof word), sizeof word);
    at += sizeof word;
    return word;
}

// The sum of a block that starts at an even address.
inline std::uint32_t sumEven(const unsigned char* at, std::size_t length) {
    std::uint64_t sum = 0;
    if (length >= 2 && reinterpret_cast<std::uintptr_t>(at) % 4 != 0) {
        sum = take<std::uint16_t>(at);
        length -= 2;
    }
    if (length >= 32) {
        sum = sumBlocks(at, length / 32, static_cast<std::uint32_t>(sum));
    }
    for (std::size_t words = length % 32 / 4; words != 0; --words) {
        sum += take<std::uint32_t>(at);
    }
    if ((length & 2) != 0) {
        sum += take<std::uint16_t>(at);
    }
    if ((length & 1) != 0) {
        sum += *at;
    }
    return foldTo32(sum);
}

inline std::uint16_t onesComplementSum(const unsigned char* at, std::size_t length) {
    if (length == 0 || reinterpret_cast<std::uintptr_t>(at) % 2 == 0) {
        return foldTo16(sumEven(at, length));
    }
    // The remainder is paired the other way round; the first byte is the low half of its word.
    const std::uint16_t remainder = foldTo16(sumEven(at + 1, length - 1));
    return foldTo16(std::uint32_t{swapBytes(remainder)} + *at);
}

#else

__extension__ using Wide = unsigned __int128;

// Both need 8 bytes before the end of the rest, ...
inline std::uint16_t finishSum(Wide sum, const unsigned char* at, std::size_t length) {
    for (; length >= 32; length -= 32) {
        sum += load<std::uint64_t>(at);
        sum += load<std::uint64_t>(at + 8);
        sum += load<std::uint64_t>(at + 16);
        sum += load<std::uint64_t>(at + 24);
        at += 32;
    }
    if ((length & 16) != 0) {
        sum += load<std::uint64_t>(at);
        sum += load<std::uint64_t>(at + 8);
        at += 16;
    }
    if ((length & 8) != 0) {
        sum += load<std::uint64_t>(at);
        at += 8;
    }
    if (const std::size_t rest = length % 8; rest != 0) {
        // Reads back over bytes that have been summed, to stay inside the block; drops them.
        sum += load<std::uint64_t>(at + rest - 8) >> (64 - 8 * rest);
    }
    return foldTo16(foldTo32(foldTo64(sum)));
}

template<typename Vector>
struct Lanes {
    Vector whole{};
    Vector upper{};

    // The next word, which may lie at any address.
    void take(const unsigned char*& at) {
        Vector word;
        std::memcpy(&word, at, sizeof word);
        whole += word;
        upper += word >> 32;
        at += sizeof word;
    }
};

// Sums a block in vectors. Inlined by force, so that it uses the instructions of the caller.
template<typename Vector>
[[gnu::always_inline]] inline std::uint16_t sumVectors(std::uint16_t start, const unsigned char* at,
                                                       std::size_t length) {
    Lanes<Vector> even;
    Lanes<Vector> odd; // a second chain of additions, independent of the first
    for (; length >= 2 * sizeof(Vector); length -= 2 * sizeof(Vector)) {
        even.take(at);
        odd.take(at);
    }
    if (length >= sizeof(Vector)) {
        even.take(at);
        length -= sizeof(Vector);
    }
    even.whole += odd.whole;
    even.upper += odd.upper;
    std::uint64_t whole = 0;
    std::uint64_t upper = 0;
    for (std::size_t i = 0; i < sizeof(Vector) / 8; ++i) {
        whole += even.whole[i];
        upper += even.upper[i];
    }
    const std::uint64_t lower = whole - (upper << 32);
    return finishSum(Wide{lower} + upper + start, at, length);
}

using Vector16 [[gnu::vector_size(16)]] = std::uint64_t;
using Vector32 [[gnu::vector_size(32)]] = std::uint64_t;
using Vector64 [[gnu::vector_size(64)]] = std::uint64_t;

#if defined(__x86_64__)
[[gnu::noinline, gnu::target("avx512f")]] static std::uint16_t
sumAvx512(std::uint16_t start, const unsigned char* at, std::size_t length) {
    return sumVectors<Vector64>(start, at, length);
}
[[gnu::noinline, gnu::target("avx2")]] static std::uint16_t
sumAvx2(std::uint16_t start, const unsigned char* at, std::size_t length) {
    return sumVectors<Vector32>(start, at, length);
}
#endif
[[gnu::noinline]] static std::uint16_t sumBaseline(std::uint16_t start, const unsigned char* at,
                                                   std::size_t length) {
    return sumVectors<Vector16>(start, at, length);
}

// A block of less than 8 bytes.
inline std::uint16_t sumFew(std::uint64_t sum, const unsigned char* at, std::size_t length) {
    if ((length & 4) != 0) {
        sum += load<std::uint32_t>(at);
        at += 4;
    }
    if ((length & 2) != 0) {
        sum += load<std::uint16_t>(at);
        at += 2;
    }
    if ((length & 1) != 0) {
        sum += *at;
    }
    return foldTo16(foldTo32(sum));
}

#ifndef WIDE
#define WIDE 128
#endif
#ifndef MODE
#define MODE 3
#endif
inline std::uint16_t onesComplementSum(std::uint16_t start, const unsigned char* at,
                                       std::size_t length) {
    if (length < 8) {
        return sumFew(start, at, length);
    }
    if (length < WIDE) {
        return finishSum(start, at, length);
    }
    if (MODE >= 3 && __builtin_cpu_supports("avx512f")) {
        return sumAvx512(start, at, length);
    }
    if (MODE >= 2 && __builtin_cpu_supports("avx2")) {
        return sumAvx2(start, at, length);
    }
    return sumBaseline(start, at, length);
}

#endif

} // namespace zel
