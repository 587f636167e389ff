// The sum of a block for processors that load 64-bit words and vectors from any address.
#pragma once

#include "OnesComplement.hpp"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zel {

template<typename Word>
inline Word load(const unsigned char* at) {
    Word word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

inline std::uint64_t add_with_carry(std::uint64_t sum, std::uint64_t word) {
    sum += word;
    return sum + (sum < word ? 1 : 0);
}

inline std::uint64_t add_four_words(std::uint64_t sum, const unsigned char* at) {
#if defined(__x86_64__)
    // Left to itself the compiler ends the carry after each word.
    asm("addq   (%[at]), %[sum]\n\t"
        "adcq  8(%[at]), %[sum]\n\t"
        "adcq 16(%[at]), %[sum]\n\t"
        "adcq 24(%[at]), %[sum]\n\t"
        "adcq $0, %[sum]"
        : [sum] "+r"(sum)
        : [at] "r"(at), "m"(*reinterpret_cast<const unsigned char(*)[32]>(at))
        : "cc");
#else
    for (std::size_t i = 0; i < 32; i += 8)
        sum = add_with_carry(sum, load<std::uint64_t>(at + i));
#endif
    return sum;
}

// Continues `sum` over less than 8 bytes.
inline std::uint16_t sum_few_bytes(std::uint64_t sum, const unsigned char* at, std::size_t length) {
    if ((length & 4) != 0) {
        sum += load<std::uint32_t>(at);
        at += 4;
    }
    if ((length & 2) != 0) {
        sum += load<std::uint16_t>(at);
        at += 2;
    }
    if ((length & 1) != 0)
        sum += *at;
    return fold_to_16(sum);
}

// Continues `sum` over the last `length` bytes (at least 1), at `at`, of a block of at least 8.
inline std::uint16_t sum_words(std::uint64_t sum, const unsigned char* at, std::size_t length) {
    const std::size_t before = length - 1; // rounded down to words, all but the last one
    for (const auto* const end = at + before / 32 * 32; at != end; at += 32)
        sum = add_four_words(sum, at);
    if ((before & 16) != 0) {
        sum = add_with_carry(sum, load<std::uint64_t>(at));
        sum = add_with_carry(sum, load<std::uint64_t>(at + 8));
        at += 16;
    }
    if ((before & 8) != 0) {
        sum = add_with_carry(sum, load<std::uint64_t>(at));
        at += 8;
    }
    const std::size_t last = before % 8 + 1;
    sum = add_with_carry(sum, load<std::uint64_t>(at + last - 8) >> (64 - 8 * last));
    return fold_to_16(sum);
}

// Sums of 64-bit words modulo 2^64 and of their upper halves, from which that of the lower halves
// follows: three instructions per vector and no carry. Exact for 2^32 words.
template<typename Vector>
struct Lanes {
    Vector words{};
    Vector upper_halves{};

    void take(const unsigned char*& at) {
        Vector vector; // not by load(): it may not return what only some processors have
        std::memcpy(&vector, at, sizeof vector);
        words += vector;
        upper_halves += vector >> 32;
        at += sizeof vector;
    }
};

// Continues `start` over at least 8 bytes. Always inlined, to be made of its caller's instructions.
template<typename Vector>
[[gnu::always_inline]] inline std::uint16_t
sum_vectors(std::uint16_t start, const unsigned char* at, std::size_t length) {
    Lanes<Vector> even;
    Lanes<Vector> odd; // does not wait for the additions to the other
    for (; length >= 2 * sizeof(Vector); length -= 2 * sizeof(Vector)) {
        even.take(at);
        odd.take(at);
    }
    if (length >= sizeof(Vector)) {
        even.take(at);
        length -= sizeof(Vector);
    }
    even.words += odd.words;
    even.upper_halves += odd.upper_halves;
    std::uint64_t words = 0;
    std::uint64_t upper = 0;
    for (std::size_t i = 0; i < sizeof(Vector) / sizeof(std::uint64_t); ++i) {
        words += even.words[i];
        upper += even.upper_halves[i];
    }
    const std::uint64_t lower = words - (upper << 32);
    const std::uint64_t sum = start + upper + lower;
    return length == 0 ? fold_to_16(sum) : sum_words(sum, at, length);
}

// The widest vectors of the processor at hand. A test per call, unlike an indirect function, needs
// no relocation and works before the program's constructors have run (then with the baseline).
using Vector16 [[gnu::vector_size(16)]] = std::uint64_t;
[[gnu::noinline]] inline std::uint16_t sum_baseline(std::uint16_t start, const unsigned char* at,
                                                    std::size_t length) {
    return sum_vectors<Vector16>(start, at, length);
}

#if defined(__x86_64__)
using Vector32 [[gnu::vector_size(32)]] = std::uint64_t;
using Vector64 [[gnu::vector_size(64)]] = std::uint64_t;

[[gnu::noinline, gnu::target("avx2")]] inline std::uint16_t
sum_avx2(std::uint16_t start, const unsigned char* at, std::size_t length) {
    return sum_vectors<Vector32>(start, at, length);
}

[[gnu::noinline, gnu::target("avx512f")]] inline std::uint16_t
sum_avx512(std::uint16_t start, const unsigned char* at, std::size_t length) {
    return sum_vectors<Vector64>(start, at, length);
}
#endif

inline std::uint16_t sum_long_block(std::uint16_t start, const unsigned char* at,
                                    std::size_t length) {
#if defined(__x86_64__)
    // Processors without VBMI2 lower their clock for 512-bit vectors.
    if (__builtin_cpu_supports("avx512vbmi2"))
        return sum_avx512(start, at, length);
    if (__builtin_cpu_supports("avx2"))
        return sum_avx2(start, at, length);
#endif
    return sum_baseline(start, at, length);
}

// Continues `start` over `length` bytes at `at`.
inline std::uint16_t ones_complement_sum(std::uint16_t start, const unsigned char* at,
                                         std::size_t length) {
    constexpr std::size_t words_from = 8;
    constexpr std::size_t vectors_from = 192; // measured: below it, adding up the lanes costs more
    if (length - words_from < vectors_from - words_from)
        return sum_words(start, at, length);
    return length < words_from ? sum_few_bytes(start, at, length)
                               : sum_long_block(start, at, length);
}

} // namespace zel
