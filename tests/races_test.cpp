// Races under load, and moments that a race would have to hit, brought about.
#include "support/manual_tick.hpp"
#include "support/test.hpp"
#include "support/tun_interface.hpp"

#include <barrier>

ZEL_INTERPOSE(int, pthread_mutex_lock, (pthread_mutex_t * m), (m), noexcept)
ZEL_INTERPOSE(int, pthread_mutex_unlock, (pthread_mutex_t * m), (m), noexcept)
ZEL_INTERPOSE(ssize_t, read, (int fd, void* data, size_t size), (fd, data, size), )
ZEL_INTERPOSE(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size), )
ZEL_INTERPOSE(FILE*, popen, (const char* c, const char* m), (c, m), )

namespace {

using namespace zel::test;
using Drivers::Api::InterruptProcessing::DeferredServiceRoutine;
using Drivers::Devices::InterruptProcessing::LinuxDeferredServiceController;

// The routine has made its thread cancellable at any moment; it is cancelled at each call that the
// library makes on its behalf once the routine has returned.
TEST(Cancellation, AfterTheRoutineLeavesNeitherLockNorRegistryEntry) {
    static thread_local int calls_left;
    const auto cancel_at_its_call = [](auto real) {
        return [real](auto... arguments) {
            if (calls_left > 0 && --calls_left == 0)
                pthread_cancel(pthread_self());
            const int result = real(arguments...);
            if (calls_left > 0 && --calls_left == 0)
                pthread_cancel(pthread_self());
            return result;
        };
    };
    interposed::pthread_mutex_lock = cancel_at_its_call(real::pthread_mutex_lock);
    interposed::pthread_mutex_unlock = cancel_at_its_call(real::pthread_mutex_unlock);
    for (int moment = 1; moment <= 4; ++moment) {
        const KernelThread thread{Attributes{1}, [moment] {
                                      pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
                                      calls_left = moment;
                                  }};
        alarm(20); // instead of waiting for a lock for ever
        EXPECT_TRUE(eventually([] { return registered_threads() == 0; })) << "moment " << moment;
        alarm(0);
    }
}

// A command is where an application's thread spends its time, the network module's lock in hand.
TEST(Cancellation, WithinACommandLeavesNoLockDescriptorOrProcess) {
    if (under_address_sanitizer)
        GTEST_SKIP() << "unwinding with the sanitizer's calls does not fit into 16 KiB of stack";
    static std::atomic<bool> entered;
    interposed::popen = [](const char*, const char* mode) {
        entered = true;
        return real::popen("sleep 0.02; echo text", mode);
    };
    static char text[100];
    zel_vrf_create(text, sizeof text, "red");
    const auto before = open_files();
    for (const auto& operation : {
             +[] { zel_run_command("", text, sizeof text); },
             +[] { zel_vrf_create(text, sizeof text, "blue"); },
             +[] { zel_external_traffic_match_criteria_add(text, sizeof text, 17, 0, 53); },
         }) {
        for (int command = 1; command <= 3; ++command) { // of an instance's, the second is locked
            entered = false;
            std::atomic<bool> finished{false};
            KernelThread thread{Attributes{1}, [&] {
                                    for (int i = 0; i < 100; ++i)
                                        operation();
                                    finished = true;
                                }};
            for (int i = 0; i < command; ++i)
                EXPECT_TRUE(eventually([] { return entered.exchange(false); }));
            pthread_cancel(thread.id);
            thread.join();
            EXPECT_FALSE(finished);
            EXPECT_TRUE(eventually([] { return registered_threads() == 0; }));
            EXPECT_EQ(open_files(), before);
            EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
            alarm(20); // instead of waiting for a lock for ever
            unsigned char packet = 0;
            zel_tun_ipv4_packet_send(1, &packet, 1);
            alarm(0);
        }
    }
}

// Queued and cancelled from many threads while the kernel-call thread runs them: a call runs or its
// entry in the queue has become Empty, never both and never neither.
TEST(KernelCalls, OfManyThreadsRunOnceOrAreCancelled) {
    // A thread that spins there keeps the one it waits for, of lower priority, from running.
    if (under_thread_sanitizer || under_address_sanitizer)
        GTEST_SKIP() << "the sanitizer's own locks spin and know no SCHED_FIFO priorities";
    struct Routine final : DeferredServiceRoutine {
        void dsr() override { ++runs; }
        std::atomic<int> runs{0};
    };
    constexpr int threads = 8, each = 125; // together they fit
    const ManualTick ticks;
    LinuxDeferredServiceController* controller = LinuxDeferredServiceController::getInstance();
    int released = 0;
    // The emulator takes a good part of a second for a round beside load, and serialises much of
    // it.
    const int rounds = running_under_user_emulation() ? 50 : 200;
    for (int round = 0; round < rounds; ++round) {
        std::vector<Routine> routines(threads * each);
        pthread_mutex_lock(&kcall_mutex);
        KCallIn = KCallOut = KCallList;
        pthread_mutex_unlock(&kcall_mutex);
        std::barrier full{threads};
        std::list<KernelThread> users;
        for (int t = 0; t < threads; ++t) {
            users.emplace_back(Attributes{1 + t % 3}, [&, t] {
                setThreadAffinityAllCpus();
                Routine* const own = &routines[static_cast<size_t>(t * each)];
                for (int i = 0; i < each; ++i) {
                    controller->defer(&own[i]);
                    if (i % 4 == 0)
                        controller->release(&own[i]);
                    if (round % 2 == 0 && i % 10 == 0)
                        ticks.signal();
                }
                // In a full queue a release takes long: the tick falls into one. (A spinning
                // barrier would keep the emulator busy for most of its time.)
                full.arrive_and_wait();
                for (int i = 0; i < each; ++i) {
                    if (i == each / 2 && t == round % threads)
                        ticks.signal();
                    controller->release(&own[i]);
                }
            });
        }
        for (KernelThread& user : users)
            user.join();
        ASSERT_TRUE(ticks.tick());
        ASSERT_EQ(KCallIn, &KCallList[threads * each]);
        for (size_t entry = 1; entry <= threads * each; ++entry) {
            const KernelCall& call = KCallList[entry];
            const bool is_released = call.function == reinterpret_cast<zel_word_t>(&Empty);
            released += is_released;
            auto* routine = reinterpret_cast<DeferredServiceRoutine*>(call.arguments[0]);
            ASSERT_EQ(static_cast<Routine*>(routine)->runs, is_released ? 0 : 1);
        }
    }
    EXPECT_GT(released, 0);
}

// --- TUN devices

std::atomic<int> packets_received{0};
std::atomic<int> wrong_packets{0};

void alloc_buffer(void** handle, void** data, int size) {
    *handle = *data = std::malloc(static_cast<size_t>(size));
}
void free_buffer(void* handle) {
    std::free(handle);
}
void receive(int index, void* handle, int length) {
    // UDP over IPv4 from 10.INDEX.0.1
    const auto* packet = static_cast<const unsigned char*>(handle);
    if (length >= 28 && packet[0] == 0x45 && packet[9] == IPPROTO_UDP) {
        ++packets_received;
        wrong_packets += packet[13] != index;
    }
    std::free(handle);
}

TEST(TunDevices, ComeAndGoWithoutTouchingAnyOtherDescriptor) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    interposed::popen = [](const char*, const char* mode) { return real::popen(":", mode); };
    // Holds a packet up between the choice of its descriptor and the call, now and then.
    const auto holding_up = [](auto real, size_t packet_size) {
        return [real, packet_size](int fd, auto data, size_t size) {
            static std::atomic<int> calls;
            if (size == packet_size && ++calls % 4 == 0)
                usleep(200);
            return real(fd, data, size);
        };
    };
    interposed::write = holding_up(real::write, 28);
    interposed::read = holding_up(real::read, 1500);
    zel_tun_init();
    zel_tun_packet_init(receive, alloc_buffer, free_buffer, 10);
    constexpr int indices = 4;
    std::atomic<bool> stop{false};
    std::atomic<int> touched{0};
    std::list<std::thread> others;
    // Beside the devices, on the numbers that they give back.
    others.emplace_back([&] {
        while (!stop) {
            const int file = memfd_create("bystander", MFD_CLOEXEC);
            touched += write(file, "mine", 4) != 4;
            usleep(100);
            char bytes[8];
            touched += lseek(file, 0, SEEK_CUR) != 4 || pread(file, bytes, 8, 0) != 4;
            close(file);
        }
    });
    // Out of Linux, and into it.
    others.emplace_back([&] {
        while (!stop) {
            for (int index = 1; index <= indices; ++index) {
                const int socket = socket_through(index);
                send(socket, "x", 1, 0);
                close(socket);
            }
        }
    });
    for (int sender = 0; sender < 2; ++sender) {
        others.emplace_back([&] {
            const unsigned char packet[28] = {0x45, 0, 0, 28, 0, 0, 0, 0, 64, IPPROTO_UDP};
            while (!stop) {
                for (int index = 1; index <= indices; ++index)
                    zel_tun_ipv4_packet_send(index, packet, sizeof packet);
            }
        });
    }
    const auto begin = std::chrono::steady_clock::now();
    int rounds = 0;
    while (std::chrono::steady_clock::now() - begin < std::chrono::seconds{3}) {
        const int index = 1 + rounds++ % indices;
        zel_tun_ipv4_create(nullptr, 0, "red", index);
        bring_up(index); // fails while a packet on its way still holds the earlier device
        zel_tun_ipv4_destroy(nullptr, 0, "red", 1 + rounds % indices);
    }
    stop = true;
    for (std::thread& other : others)
        other.join();
    RecordProperty("devices", rounds);
    RecordProperty("packets", packets_received);
    EXPECT_GT(packets_received, 0);
    EXPECT_EQ(wrong_packets, 0);
    EXPECT_EQ(touched, 0);
}

// --- Routing instances

std::string rules_of(const std::string& instance) {
    const std::string inside = "ip netns exec " + instance;
    return shell(inside + " iptables -t mangle -S OUTPUT | sort; " + inside +
                 " ip6tables -t mangle -S OUTPUT | sort");
}

TEST(Criteria, ReachEachInstanceOnceWhileBothChangeFromSeveralThreads) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    // One command takes longer than another: without the lock they would overtake each other.
    static std::atomic<unsigned> count;
    interposed::popen = [](const char* command, const char* mode) {
        usleep(++count * 7919 % 8 * 1000);
        return real::popen(command, mode);
    };
    const auto add = [](int port) {
        zel_external_traffic_match_criteria_add(nullptr, 0, 17, 0, port);
    };
    const auto del = [](int port) {
        zel_external_traffic_match_criteria_del(nullptr, 0, 17, 0, port);
    };
    constexpr int instances = 8, rounds = 8;
    std::list<std::thread> users;
    // Downwards: criteria reach the youngest instance first, in the middle of its creation.
    zel_vrf_create(nullptr, 0, std::to_string(instances - 1).c_str());
    users.emplace_back([&] {
        for (int i = instances - 2; i >= 0; --i)
            zel_vrf_create(nullptr, 0, std::to_string(i).c_str());
    });
    for (int t = 0; t < 2; ++t) {
        users.emplace_back([&, t] {
            const int own = 1000 * (t + 1);
            for (int i = 0; i < rounds; ++i) {
                add(own + i);
                if (i % 2 == t) { // one that both threads change, at the same time
                    add(100 + i);
                } else {
                    del(100 + i);
                }
                if (i > 0)
                    del(own + i - 1);
            }
        });
    }
    for (std::thread& user : users)
        user.join();
    // What an instance gets that is made now is what is on the list.
    zel_vrf_create(nullptr, 0, "last");
    const std::string expected = rules_of("last");
    for (const char* port : {"1007", "2007"})
        EXPECT_THAT(expected, testing::HasSubstr(std::string{"--dport "} + port));
    EXPECT_THAT(expected, testing::Not(testing::HasSubstr("--dport 1006")));
    for (int i = 0; i < instances; ++i)
        EXPECT_EQ(rules_of(std::to_string(i)), expected) << i;
}

} // namespace
