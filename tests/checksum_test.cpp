#include "zelkernel/checksum.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <vector>

#include "support/naive_checksum.hpp"
#if !defined(__arm__)
#include "OnesComplementSumWide.hpp"
#endif

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

// Random bytes between two pages that must not be touched.
class GuardedBytes {
public:
    explicit GuardedBytes(std::size_t pages) : size_(pages * page_) {
        void* const map =
            mmap(nullptr, size_ + 2 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        begin_ = static_cast<std::uint8_t*>(map) + page_;
        EXPECT_EQ(mprotect(begin_, size_, PROT_READ | PROT_WRITE), 0);
        std::generate(begin_, end(), [random = std::mt19937{1}]() mutable {
            return static_cast<std::uint8_t>(random());
        });
    }
    ~GuardedBytes() { munmap(begin_ - page_, size_ + 2 * page_); }
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    std::uint8_t* begin() const { return begin_; }
    std::uint8_t* end() const { return begin_ + size_; }

private:
    std::size_t page_ = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    std::size_t size_;
    std::uint8_t* begin_;
};

// The ways to sum a long block that this processor could be given.
void expectEachWayGives(std::uint16_t expected, const std::uint8_t* data, std::size_t length) {
#if defined(__x86_64__)
    const struct {
        const char* name;
        std::uint16_t (*sum)(std::uint16_t, const std::uint8_t*, std::size_t);
        bool available;
    } kWays[] = {{"baseline", zel::sumBaseline, true},
                 {"AVX2", zel::sumAvx2, __builtin_cpu_supports("avx2") != 0},
                 {"AVX-512", zel::sumAvx512, __builtin_cpu_supports("avx512f") != 0}};
    for (const auto& way : kWays) {
        if (way.available && length >= 8) {
            const auto sum = zel::swapBytes(way.sum(0, data, length));
            ASSERT_EQ(static_cast<std::uint16_t>(~sum), expected) << way.name << ", " << length;
        }
    }
#else
    static_cast<void>(expected), static_cast<void>(data), static_cast<void>(length);
#endif
}

TEST(Checksum, KnownValues) {
    std::uint8_t header[] = {0x45, 0, 0,    0x73, 0, 0, 0x40, 0,    0x40, 0x11,
                             0,    0, 0xc0, 0xa8, 0, 1, 0xc0, 0xa8, 0,    0xc7};
    EXPECT_EQ(IpAccelerators_HeaderOnlyChecksum(header), 0xb861);
    EXPECT_EQ(IpAccelerators_GeneralChecksum(header, 20, 0xffff), 0xb861);
    EXPECT_EQ(IpAccelerators_GeneralChecksum(header, 20, 0), 0xb861);
    EXPECT_EQ(IpAccelerators_GeneralChecksum(header, 8, 0xffff), 0x7a8c);
    EXPECT_EQ(IpAccelerators_GeneralChecksum(header + 8, 12, 0x7a8c), 0xb861);
    header[10] = 0xb8, header[11] = 0x61;
    EXPECT_EQ(IpAccelerators_HeaderOnlyChecksum(header), 0);
    EXPECT_EQ(IpAccelerators_GeneralChecksum("\x01", 1, 0xffff), 0xfeff);
    for (const int length : {0, -1, -2147483647 - 1}) {
        EXPECT_EQ(IpAccelerators_GeneralChecksum(nullptr, length, 0x1234), 0x1234) << length;
    }
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
        {0, 0, 0xffffffff, 0, 0},
        {0, 0, 0x0003ffff, 0, 0xfffc},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::Message()
                     << std::hex << c.checksum << ' ' << c.old_value << ' ' << c.new_value);
        EXPECT_EQ(IpAccelerators_UpdateChecksum16(c.checksum,
                                                  static_cast<std::uint16_t>(c.old_value),
                                                  static_cast<std::uint16_t>(c.new_value)),
                  c.expected16);
        EXPECT_EQ(IpAccelerators_UpdateChecksum32(c.checksum, c.old_value, c.new_value),
                  c.expected32);
    }
}

TEST(Checksum, EveryLengthAndAlignmentWithinTheBlock) {
    const GuardedBytes bytes(1);
    for (std::size_t length = 0; length <= 600; ++length) {
        for (std::size_t shift = 0; shift < 16; ++shift) {
            for (const std::uint8_t* data : {bytes.begin() + shift, bytes.end() - length - shift}) {
                const auto initial = static_cast<std::uint16_t>(length * 0x9e37 + shift);
                ASSERT_EQ(IpAccelerators_GeneralChecksum(data, static_cast<int>(length), initial),
                          naiveChecksum(data, length, initial))
                    << length << " bytes at " << static_cast<const void*>(data);
                expectEachWayGives(naiveChecksum(data, length, 0xffff), data, length);
            }
        }
    }
}

TEST(Checksum, HeaderLengthIsTakenFromItsFirstByte) {
    const GuardedBytes bytes(1);
    for (unsigned words = 0; words < 16; ++words) {
        std::uint8_t* const header = bytes.end() - std::max(words * 4, 1U);
        *header = static_cast<std::uint8_t>(0xf0 + words);
        EXPECT_EQ(IpAccelerators_HeaderOnlyChecksum(header),
                  naiveChecksum(header, words * 4, 0xffff))
            << words;
    }
}

// Blocks of one value reach the extremes: the two zeros, a carry from each word, and sums that do
// not fit in 32 bits.
TEST(Checksum, UniformBlocksOfAnyLength) {
    const std::uint8_t values[] = {0x00, 0xff, 0x80};
    const std::uint16_t initials[] = {0, 1, 0x8000, 0xfffe, 0xffff};
    const std::size_t lengths[] = {1, 2, 7, 10, 31, 64, 191, 192, 1500, 65'535, 131'072, 300'000};
    for (const auto value : values) {
        const std::vector<std::uint8_t> block(300'003, value);
        for (const auto length : lengths) {
            for (const auto initial : initials) {
                for (std::size_t offset = 0; offset < 4; ++offset) {
                    ASSERT_EQ(IpAccelerators_GeneralChecksum(block.data() + offset,
                                                             static_cast<int>(length), initial),
                              naiveChecksum(block.data(), length, initial))
                        << length << " bytes of " << int{value} << ", initial " << initial;
                }
            }
            expectEachWayGives(naiveChecksum(block.data(), length, 0xffff), block.data(), length);
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
