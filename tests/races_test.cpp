// Races under load, and moments that a race would have to hit, brought about.
#include "support/test.hpp"
#include "support/tun_interface.hpp"

ZEL_INTERPOSE(int, pthread_mutex_lock, (pthread_mutex_t * m), (m))
ZEL_INTERPOSE(int, pthread_mutex_unlock, (pthread_mutex_t * m), (m))
ZEL_INTERPOSE(ssize_t, read, (int fd, void* data, size_t size), (fd, data, size))
ZEL_INTERPOSE(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size))
ZEL_INTERPOSE(FILE*, popen, (const char* c, const char* m), (c, m))

namespace {

using namespace zel::test;

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

} // namespace
