// The sum of a block for 32-bit ARM: aligned multi-word loads into one chain of additions with
// carry.
#pragma once

#include "OnesComplement.hpp"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zel {

// Continues `sum` over what lies between `at` and `end`: whole blocks of 32 bytes, at least one, at
// a multiple of 4. The carry lives on from block to block: nothing in the loop but the additions
// may set it. Not inlined, so that short blocks need not save its registers.
[[gnu::noinline]] inline std::uint32_t sum_blocks(std::uint32_t sum, const unsigned char* at,
                                                  const unsigned char* end) {
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
        "    adc     %[sum], %[sum], #0\n" // never carries: all-ones with a carry cannot arise
        : [sum] "+&r"(sum), [at] "+&r"(at)
        : [end] "r"(end)
        // Neither r7 nor r11: one of them may be the frame pointer.
        : "r3", "r4", "r5", "r6", "r8", "r9", "r10", "r12", "cc", "memory");
    return sum;
}

// The word at `at`, which is a multiple of its size; advances `at`.
template<typename Word>
inline Word take_aligned(const unsigned char*& at) {
    Word word;
    std::memcpy(&word, __builtin_assume_aligned(at, sizeof word), sizeof word);
    at += sizeof word;
    return word;
}

// The sum of a block at an even address.
inline std::uint16_t sum_even(const unsigned char* at, std::size_t length) {
    std::uint64_t sum = 0;
    if (length >= 2 && reinterpret_cast<std::uintptr_t>(at) % 4 != 0) {
        sum = take_aligned<std::uint16_t>(at);
        length -= 2;
    }
    if (length >= 32) {
        const unsigned char* const end = at + length / 32 * 32;
        sum = sum_blocks(static_cast<std::uint32_t>(sum), at, end);
        at = end;
    }
    for (std::size_t words = length % 32 / 4; words != 0; --words)
        sum += take_aligned<std::uint32_t>(at);
    if ((length & 2) != 0)
        sum += take_aligned<std::uint16_t>(at);
    if ((length & 1) != 0)
        sum += *at;
    return fold_to_16(sum);
}

// Continues `start` over `length` bytes (at least 1) at `at`.
inline std::uint16_t ones_complement_sum(std::uint16_t start, const unsigned char* at,
                                         std::size_t length) {
    const std::size_t skipped = reinterpret_cast<std::uintptr_t>(at) % 2;
    const std::uint16_t sum = sum_even(at + skipped, length - skipped);
    if (skipped == 0) {
        return fold_to_16(std::uint32_t{start} + sum);
    }
    // From the second byte on, the words pair the bytes the other way round.
    return fold_to_16(std::uint32_t{start} + *at + swap_bytes(sum));
}

} // namespace zel
