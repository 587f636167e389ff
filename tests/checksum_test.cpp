#include <zelkernel/checksum.h>

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <span>
#include <vector>

#include "support/naive_checksum.hpp"
#if !defined(__arm__)
#include "OnesComplementSumWide.hpp"
#endif

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

// A page of random bytes between two that must not be touched.
std::span<std::uint8_t> guarded_page() {
    const auto size = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* const map = mmap(nullptr, 3 * size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    const std::span page{static_cast<std::uint8_t*>(map) + size, size};
    EXPECT_EQ(mprotect(page.data(), size, PROT_READ | PROT_WRITE), 0);
    std::mt19937 random{1};
    std::generate(page.begin(), page.end(), [&] { return static_cast<std::uint8_t>(random()); });
    return page;
}

// Also of the ways to sum a long block that this processor could be given.
void expect_as_defined(const std::uint8_t* data, std::size_t length, unsigned start) {
    const auto initial = static_cast<std::uint16_t>(start);
    ASSERT_EQ(IpAccelerators_GeneralChecksum(data, static_cast<int>(length), initial),
              naive_checksum(data, length, initial))
        << length << " bytes at " << static_cast<const void*>(data) << ", initial " << initial;
#if defined(__x86_64__)
    if (length < 8)
        return;
    const std::uint16_t expected = naive_checksum(data, length, 0xffff);
    const auto check = [=](auto sum, const char* way) {
        const auto checksum = static_cast<std::uint16_t>(~zel::swap_bytes(sum(0, data, length)));
        ASSERT_EQ(checksum, expected) << way << ", " << length << " bytes";
    };
    check(zel::sum_baseline, "baseline");
    if (__builtin_cpu_supports("avx2"))
        check(zel::sum_avx2, "AVX2");
    if (__builtin_cpu_supports("avx512f"))
        check(zel::sum_avx512, "AVX-512");
#endif
}

TEST(Checksum, KnownValues) {
    std::uint8_t header[] = {0x45, 0, 0,    0x73, 0, 0, 0x40, 0,    0x40, 0x11,
                             0,    0, 0xc0, 0xa8, 0, 1, 0xc0, 0xa8, 0,    0xc7};
    EXPECT_EQ(IpAccelerators_HeaderOnlyChecksum(header), 0xb861);
    EXPECT_EQ(IpAccelerators_GeneralChecksum(header, 20, 0xffff), 0xb861);
    EXPECT_EQ(IpAccelerators_GeneralChecksum(header, 20, 0), 0xb861);
    header[10] = 0xb8, header[11] = 0x61;
    EXPECT_EQ(IpAccelerators_HeaderOnlyChecksum(header), 0);
    EXPECT_EQ(IpAccelerators_GeneralChecksum("\x01", 1, 0xffff), 0xfeff);
    for (const int length : {0, -1, -2147483647 - 1})
        EXPECT_EQ(IpAccelerators_GeneralChecksum(nullptr, length, 0x1234), 0x1234) << length;
}

TEST(Checksum, UpdatesKeepTheTwoZerosApart) {
    const struct {
        std::uint16_t checksum;
        std::uint32_t old_value, new_value;
        std::uint16_t expected16, expected32;
    } kCases[] = {
        {0xb861, 0x4011, 0x3f11, 0xb961, 0xb961},
        {0xffff, 0xffff, 0, 0xffff, 0},
        {0, 0, 0, 0, 0},
        {0xffff, 0, 0, 0, 0},
        {0, 0xffff, 0xffff, 0, 0},
        {0xb861, 0xc0a80001, 0x0a000001, 0xb861, 0x6f0a},
        {0xffff, 0xffffffff, 0, 0xffff, 0xffff},
        {0, 0, 0x0003ffff, 0, 0xfffc},
    };
    for (const auto& [checksum, old, changed, expected16, expected32] : kCases) {
        const auto old16 = static_cast<std::uint16_t>(old);
        const auto new16 = static_cast<std::uint16_t>(changed);
        EXPECT_EQ(IpAccelerators_UpdateChecksum16(checksum, old16, new16), expected16)
            << std::hex << checksum << ' ' << old << ' ' << changed;
        EXPECT_EQ(IpAccelerators_UpdateChecksum32(checksum, old, changed), expected32)
            << std::hex << checksum << ' ' << old << ' ' << changed;
    }
}

TEST(Checksum, EveryLengthAndAlignmentWithinTheBlock) {
    const auto page = guarded_page();
    for (std::size_t length = 0; length <= 600; ++length) {
        for (std::size_t shift = 0; shift < 16; ++shift) {
            for (const std::uint8_t* data :
                 {&page[shift], page.data() + page.size() - length - shift}) {
                expect_as_defined(data, length, static_cast<unsigned>(length * 0x9e37 + shift));
            }
        }
    }
    for (unsigned words = 0; words < 16; ++words) {
        std::uint8_t* const header = page.data() + page.size() - std::max(words * 4, 1U);
        *header = static_cast<std::uint8_t>(0xf0 + words);
        EXPECT_EQ(IpAccelerators_HeaderOnlyChecksum(header),
                  naive_checksum(header, words * 4, 0xffff))
            << words;
    }
}

// Blocks of one value reach the extremes: the two zeros, a carry from each word, and sums that do
// not fit in 32 bits.
TEST(Checksum, UniformBlocksOfAnyLength) {
    for (const unsigned value : {0x00U, 0xffU, 0x80U}) {
        const std::vector<std::uint8_t> block(300'001, static_cast<std::uint8_t>(value));
        for (const std::size_t length :
             {1U, 7U, 10U, 64U, 191U, 192U, 1500U, 65'535U, 131'072U, 300'000U}) {
            for (const unsigned start : {0U, 1U, 0x8000U, 0xfffeU, 0xffffU}) {
                for (const std::uint8_t* data : {block.data(), block.data() + 1})
                    expect_as_defined(data, length, start);
            }
        }
    }
}

TEST(Checksum, HoldsForRandomInputs) {
    std::mt19937 random{7};
    for (int round = 0; round < 2000; ++round) {
        std::vector<std::uint8_t> input(12 + random() % 2000);
        std::generate(input.begin(), input.end(),
                      [&] { return static_cast<std::uint8_t>(random()); });
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
}

} // namespace
