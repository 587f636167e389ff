// The checksum beside three other ways to compute it, over blocks of packet sizes.
// Run with --benchmark_enable_random_interleaving=true: only ratios of one run mean something.
#include <zelkernel/checksum.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using Checksum = std::uint16_t (*)(const void* data, int length, std::uint16_t initial);

template<typename Word>
Word load(const unsigned char* at) {
    Word word;
    std::memcpy(&word, at, sizeof word);
    return word;
}

// What all references end with; `sum` is in native order and less than 2^48.
std::uint16_t finish(std::uint64_t sum, const unsigned char* rest, std::size_t length,
                     std::uint16_t initial) {
    for (; length >= 2; length -= 2, rest += 2) {
        sum += load<std::uint16_t>(rest);
    }
    if (length != 0) {
        sum += *rest;
    }
    sum += __builtin_bswap16(static_cast<std::uint16_t>(~initial));
    while (sum > 0xffff) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return __builtin_bswap16(static_cast<std::uint16_t>(~sum));
}

[[gnu::noinline]] std::uint16_t words16(const void* data, int length, std::uint16_t initial) {
    const auto* const bytes = static_cast<const unsigned char*>(data);
    const auto size = static_cast<std::size_t>(length);
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < size / 2; ++i) {
        sum += load<std::uint16_t>(bytes + 2 * i);
    }
    return finish(sum, bytes + size / 2 * 2, size % 2, initial);
}

[[gnu::noinline]] std::uint16_t words32(const void* data, int length, std::uint16_t initial) {
    const auto* const bytes = static_cast<const unsigned char*>(data);
    const auto size = static_cast<std::size_t>(length);
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < size / 4; ++i) {
        sum += load<std::uint32_t>(bytes + 4 * i);
    }
    return finish(sum, bytes + size / 4 * 4, size % 4, initial);
}

#if defined(__x86_64__)
[[gnu::noinline]] std::uint16_t carry_chain(const void* data, int length, std::uint16_t initial) {
    const auto* at = static_cast<const unsigned char*>(data);
    auto size = static_cast<std::size_t>(length);
    std::uint64_t sum = 0;
    for (; size >= 64; size -= 64, at += 64) {
        asm("addq 0(%[at]), %[sum]\n\t"
            "adcq 8(%[at]), %[sum]\n\t"
            "adcq 16(%[at]), %[sum]\n\t"
            "adcq 24(%[at]), %[sum]\n\t"
            "adcq 32(%[at]), %[sum]\n\t"
            "adcq 40(%[at]), %[sum]\n\t"
            "adcq 48(%[at]), %[sum]\n\t"
            "adcq 56(%[at]), %[sum]\n\t"
            "adcq $0, %[sum]"
            : [sum] "+r"(sum)
            : [at] "r"(at), "m"(*reinterpret_cast<const unsigned char(*)[64]>(at))
            : "cc");
    }
    for (; size >= 8; size -= 8, at += 8) {
        const auto word = load<std::uint64_t>(at);
        sum += word;
        sum += sum < word ? 1 : 0;
    }
    return finish((sum & 0xffffffff) + (sum >> 32), at, size, initial);
}
#endif

void measure(benchmark::State& state, Checksum checksum, const unsigned char* data, int length) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(data);
        benchmark::DoNotOptimize(checksum(data, length, 0xffff));
    }
    state.SetBytesProcessed(state.iterations() * length);
}

const struct {
    const char* name;
    Checksum checksum;
} kWays[] = {
    {"ours", IpAccelerators_GeneralChecksum},
    {"words16", words16},
    {"words32", words32},
#if defined(__x86_64__)
    {"carry_chain", carry_chain},
#endif
};

} // namespace

int main(int argc, char** argv) {
    std::vector<unsigned char> buffer(65535 + 128);
    unsigned seed = 1;
    for (auto& byte : buffer) {
        seed = seed * 1103515245U + 12345U;
        byte = static_cast<unsigned char>(seed >> 16);
    }
    auto* const aligned = reinterpret_cast<unsigned char*>(
        (reinterpret_cast<std::uintptr_t>(buffer.data()) + 63) & ~std::uintptr_t{63});
    for (const int length : {20, 64, 576, 1500, 9000, 65535}) {
        for (const int offset : {0, 1}) {
            const auto* const data = aligned + offset;
            for (const auto& way : kWays) {
                if (way.checksum(data, length, 0x1234) != words16(data, length, 0x1234)) {
                    std::fprintf(stderr, "%s is wrong for %d bytes\n", way.name, length);
                    return EXIT_FAILURE;
                }
                const auto name = std::string("checksum/") + std::to_string(length) +
                                  (offset == 0 ? "/aligned/" : "/unaligned/") + way.name;
                benchmark::RegisterBenchmark(name.c_str(), measure, way.checksum, data, length);
            }
        }
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
