// The published counters: found from outside, counting what happens.
#include "support/test.hpp"

#include <zelkernel/simulated_platform.h>
#include <zelkernel/statistics.h>

#include <numeric>
#include <span>

namespace {

using namespace zel::test;

// The published counters, mapped as another process does it; null when there are none.
const zel_statistics* find_statistics() {
    for (const auto& entry : std::filesystem::directory_iterator{"/proc/self/fd"}) {
        std::error_code gone;
        const auto target = std::filesystem::read_symlink(entry.path(), gone).string();
        if (!target.starts_with("/memfd:zelkernel-stats"))
            continue;
        const int fd = open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
        void* map = mmap(nullptr, sizeof(zel_statistics), PROT_READ, MAP_SHARED, fd, 0);
        return map == MAP_FAILED ? nullptr : static_cast<const zel_statistics*>(map);
    }
    return nullptr;
}

TEST(Statistics, CountWhatHappens) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    setenv("ZELKERNEL_STATS", "1", 1);
    zel_kernel_init({40, 38, 36, 0, 34, 0, 0, 20, 9}, 5000, 0, nullptr, nullptr);
    const zel_statistics* counters = find_statistics();
    ASSERT_NE(counters, nullptr);
    EXPECT_EQ(counters->magic, ZEL_STATISTICS_MAGIC);
    EXPECT_EQ(counters->version, ZEL_STATISTICS_VERSION);
    EXPECT_EQ(counters->priorities[8], kernel_priorities.linux_base_priority);
    EXPECT_EQ(counters->tick_period_ns, 5'000'000u);
    ASSERT_TRUE(eventually([&] { return counters->ticks >= 20; }));
    const std::span classes{counters->lateness};
    EXPECT_GE(std::accumulate(classes.begin(), classes.end(), 0u), 20u);

    // A level that the application sets keeps passes from beginning, so that calls add up.
    KCallLevel = 1;
    for (int i = 0; i < 1030; ++i)
        kcall_enqueue(reinterpret_cast<zel_word_t>(&Empty), 0, 0, 0);
    KCallLevel = 0;
    ASSERT_TRUE(eventually([&] { return counters->calls_run == 1023; }));
    EXPECT_EQ(counters->calls_dropped, 7u);
    EXPECT_EQ(counters->calls_high_water, 1023u);

    Linux::LinuxInterruptMgr manager;
    struct : Drivers::Api::InterruptProcessing::InterruptServiceRoutine {
        void isr() override {}
    } static routine;
    for (const unsigned vector : {5u, 9u}) {
        manager.get(vector)->connect(&routine);
        manager.get(vector)->enable();
    }
    for (const int vector : {9, 5, 9})
        zel_simulated_raise(vector);
    ASSERT_TRUE(eventually(
        [&] { return counters->vectors[0].interrupts + counters->vectors[1].interrupts == 3; }));
    EXPECT_EQ(counters->vectors[0].vector, 9u);
    EXPECT_EQ(counters->vectors[0].interrupts, 2u);
    EXPECT_EQ(counters->vectors[1].vector, 5u);

    if (access("/dev/net/tun", R_OK | W_OK) != 0)
        GTEST_SKIP() << "no TUN driver: devices are not looked at";
    zel_vrf_create(nullptr, 0, "counted");
    zel_tun_ipv4_create(nullptr, 0, "counted", 3);
    const auto is_ours = [](const auto& each) { return each.family == 4 && each.index == 3; };
    const auto* device = std::ranges::find_if(counters->devices, is_ours);
    ASSERT_NE(device, std::end(counters->devices));
    const char packet[20]{0x45};
    zel_tun_ipv4_packet_send(3, packet, sizeof packet);
    zel_tun_ipv6_packet_send(3, packet, sizeof packet);
    EXPECT_EQ(device->sent_packets, 1u);
    EXPECT_EQ(device->sent_bytes, 20u);

    const char* const elsewhere = std::getenv("ZEL_TOP"); // on the emulated board
    const std::string top = elsewhere != nullptr ? elsewhere : ZEL_TOP;
    const std::string picture = shell(top + " --count 1 " + std::to_string(getpid()));
    for (const char* expected : {"KCall", "InterruptThread", "vector 9", "tun4_3", "dropped 7"})
        EXPECT_THAT(picture, testing::HasSubstr(expected));

    zel_tun_ipv4_destroy(nullptr, 0, "counted", 3);
    EXPECT_EQ(std::ranges::count_if(counters->devices, is_ours), 0);
    zel_vrf_destroy(nullptr, 0, "counted");
}

} // namespace
