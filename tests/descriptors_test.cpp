// The lock-free tables of descriptors, by themselves: files stand for the devices.
#include "support/sanitizers.hpp"
#include "support/wait.hpp"
#include "zel_tun/TunDescriptor.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <netinet/in.h>
#include <random>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace zel::network;

struct Tables {
    FdMap fd_map;
    TunFds tun4_fds{fd_map}, tun6_fds{fd_map};
};

// A file that holds the index it stands for.
void add(Tables& tables, int index, int family = AF_INET) {
    const int number = memfd_create("device", MFD_CLOEXEC);
    ASSERT_EQ(write(number, &index, sizeof index), ssize_t{sizeof index});
    tables.fd_map.insert(tables.fd_map.adopt(number, family, index));
    (family == AF_INET ? tables.tun4_fds : tables.tun6_fds).insert(index, number);
}

void remove(Tables& tables, int index, int family = AF_INET) {
    TunFds& tun_fds = family == AF_INET ? tables.tun4_fds : tables.tun6_fds;
    const int number = tun_fds.find(index);
    tun_fds.erase(index);
    tables.fd_map.erase(number); // and gives the reference up
}

TEST(TunFds, AreWhatAMapWouldBe) {
    const auto tables = std::make_unique<Tables>();
    std::map<int, int> expected;
    std::minstd_rand random{1}; // the same each time
    for (int i = 0; i < 200'000; ++i) {
        // In clusters, negative ones among them; now and then nearly all numbers are taken.
        const int index = static_cast<int>(random() % 1500) * (i % 2 == 0 ? 1 : -65536);
        const int number = static_cast<int>(random() % FD_SETSIZE);
        const auto known = expected.find(index);
        EXPECT_EQ(tables->tun4_fds.find(index), known == expected.end() ? -1 : known->second);
        if (known != expected.end() && i / 5000 % 2 == 1) {
            tables->tun4_fds.erase(index);
            tables->fd_map.erase(known->second).reset();
            expected.erase(known);
        } else if (known == expected.end() && !tables->fd_map.is_registered(number)) {
            TunReference made = tables->fd_map.adopt(number, AF_INET, index);
            made->keep_open(); // it is none
            tables->fd_map.insert(std::move(made));
            tables->tun4_fds.insert(index, number);
            expected[index] = number;
        }
        ASSERT_EQ(static_cast<bool>(tables->tun4_fds.acquire(index)), expected.contains(index));
    }
}

// Between any two instructions of a lookup, another device's number goes to one of the same index
// and the other family, or back.
TEST(TunFds, ShowADeviceThatIsThereWhateverComesInBetween) {
    if (zel::test::under_thread_sanitizer)
        GTEST_SKIP() << "the sanitizer keeps signals back until the next call of the system";
    static Tables& tables = *new Tables;
    static constexpr int lasting = 1597; // lies beyond index 0
    static std::atomic<int> changes{0};
    add(tables, 0);
    add(tables, lasting);
    zel::test::interrupt_calls([](int) {
        const bool is_back = ++changes % 2 == 0;
        remove(tables, is_back ? lasting : 0, is_back ? AF_INET6 : AF_INET);
        add(tables, is_back ? 0 : lasting, is_back ? AF_INET : AF_INET6);
    });
    while (changes < 300) {
        const TunReference found = tables.tun4_fds.acquire(lasting);
        ASSERT_TRUE(found && found->ip_version() == 4) << "after " << changes << " changes";
    }
}

// A device that is there all the time is always found; one that comes and goes is found whole or
// not at all, although its number, its index and its place in the table are used again at once.
TEST(TunFds, NeverShowADeviceThatIsHalfMadeGoneOrAnothers) {
    const auto tables = std::make_unique<Tables>();
    constexpr int lasting = 0, indices = 6;
    add(*tables, lasting);
    std::atomic<bool> stop{false};
    std::atomic<int> found{0};
    std::vector<std::thread> readers;
    for (int reader = 0; reader < 3; ++reader) {
        readers.emplace_back([&, reader] {
            for (int turn = reader; !stop; ++turn) {
                const int index = turn % indices;
                // Two of the three as senders do, one as the receive thread does.
                TunReference device = reader < 2 ? tables->tun4_fds.acquire(index)
                                                 : tables->fd_map.acquire(3 + turn % 32);
                const bool is_right = device ? device->index() == index : index != lasting;
                ASSERT_TRUE(is_right || reader == 2);
                if (reader == 2)
                    tables->fd_map.close_left();
                // A system call now and then only: the fewer, the more often a reader is
                // interrupted where it matters.
                if (!device || turn % 64 != 0)
                    continue;
                int stands_for = -1;
                EXPECT_EQ(pread(device->number(), &stands_for, sizeof stands_for, 0),
                          ssize_t{sizeof stands_for});
                EXPECT_EQ(stands_for, device->index());
                if (reader < 2)
                    tables->fd_map.leave(device);
                ++found;
            }
        });
    }
    readers.emplace_back([&] { // as a creation that fails, beside those that do not
        while (!stop) {
            const int number = memfd_create("device", MFD_CLOEXEC);
            const TunReference made = tables->fd_map.adopt(number, AF_INET, 99);
            ASSERT_EQ(fcntl(number, F_GETFD), FD_CLOEXEC) << "closed by another";
        }
    });
    // By what the readers have seen and not by time alone: they may hardly run.
    for (int round = 0; round < 20'000 || found < 2'000; ++round) {
        const int index = 1 + round % (indices - 1);
        if (tables->tun4_fds.find(index) == -1) {
            add(*tables, index);
        } else {
            remove(*tables, index);
        }
    }
    stop = true;
    for (std::thread& reader : readers)
        reader.join();
    tables->fd_map.close_left();
    for (int index = 0; index < indices; ++index) {
        if (const int number = tables->tun4_fds.find(index); number != -1) {
            remove(*tables, index);
            EXPECT_EQ(fcntl(number, F_GETFD), -1) << "still open";
        }
    }
}

} // namespace
