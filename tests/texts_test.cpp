#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

// Of bytes that such texts are made of, so that lines, keys and numbers come about.
TEST(Texts, AreKeptWithinTheirBuffersAndUnderstoodWhateverTheyHold) {
    const char pieces[] = "\n\n 0129-:MemFree:Inactive:MemTotal:kB\r\0\xff";
    std::mt19937 random{7};
    for (int round = 0; round < 3000; ++round) {
        std::vector<std::uint8_t> input(4 + random() % 3000);
        std::generate(input.begin(), input.end(),
                      [&] { return static_cast<std::uint8_t>(pieces[random() % sizeof pieces]); });
        for (size_t i = 0; i < 4; ++i)
            input[i] = static_cast<std::uint8_t>(random());
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    const std::string large = "1234MemTotal: 99999999999999999999 kB\nMemFree: 99999999999999999999"
                              " kB\nInactive: 99999999999999999999 kB\n";
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(large.data()), large.size());
}

} // namespace
