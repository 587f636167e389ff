// Surroundings that an application does not choose, and arguments at and beyond their limits.
#include "support/test.hpp"
#include "support/tun_interface.hpp"

#include <zelkernel/simulated_platform.h>

ZEL_INTERPOSE(FILE*, popen, (const char* c, const char* m), (c, m), )

namespace {

using namespace zel::test;
using testing::HasSubstr;

constexpr KernelPriorities table = {5, 25, 23, 0, 2, 100, 50, 150, 10};

std::atomic<int> polls{0}, packets{0};

void alloc_buffer(void** handle, void** data, int) {
    static char buffer[65536];
    *handle = *data = buffer;
}
void free_buffer(void*) {}
void receive(int, void*, int) {
    ++packets;
}

void start_kernel() {
    zel_kernel_init(
        table, 1000, 0, [] { ++polls; }, nullptr);
}

void start_receiving() {
    zel_tun_packet_init(receive, alloc_buffer, free_buffer, 110);
}

struct CountingIsr : Drivers::Api::InterruptProcessing::InterruptServiceRoutine {
    void isr() override { ++count; }
    std::atomic<int> count{0};
};

// An instance with a device, a packet through it, and its end, by the tools. Returns what they say.
std::string use_the_network(const char* name) {
    char text[2000];
    size_t length = 0;
    const auto each = [&](auto operation, auto... arguments) {
        operation(text + length, sizeof text - length, name, arguments...);
        length += std::strlen(text + length);
    };
    each(zel_vrf_create);
    each(zel_tun_ipv4_create, 3);
    each(zel_tun_ipv4_status, 3, true);
    each(zel_tun_ipv4_mtu, 3, 1400);
    const unsigned char packet[28] = {0x45, 0, 0, 28, 0, 0, 0, 0, 64, IPPROTO_UDP};
    zel_tun_ipv4_packet_send(3, packet, sizeof packet);
    each(zel_tun_ipv4_destroy, 3);
    each(zel_vrf_destroy);
    return std::string(text, length);
}

// --- Signals

// The kernel's own threads and the application's, but not the receive thread: a wait of that one
// that is interrupted is a fatal error by contract, and applications block their signals in it.
TEST(Signals, RainingOnAllThreadsCutNothingShort) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    static std::atomic<int> signals;
    struct sigaction action {};
    action.sa_handler = [](int) { ++signals; }; // without SA_RESTART
    sigaction(SIGUSR1, &action, nullptr);
    {
        const Capture out{1};
        start_kernel();
        sigset_t rain;
        sigemptyset(&rain);
        sigaddset(&rain, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &rain, nullptr);
        start_receiving();
        pthread_sigmask(SIG_UNBLOCK, &rain, nullptr);
    }
    Linux::LinuxInterruptMgr manager;
    CountingIsr isr;
    manager.get(1)->connect(&isr);
    manager.get(1)->enable();
    std::atomic<bool> stop{false};
    pid_t rainmaker_tid = 0;
    std::thread rainmaker{[&] {
        rainmaker_tid = gettid();
        while (!stop) {
            for_each_thread([&](pid_t tid) {
                if (tid != rainmaker_tid)
                    tgkill(getpid(), tid, SIGUSR1);
            });
            usleep(200);
        }
    }};

    static char text[64];
    EXPECT_EQ(zel_run_command("sleep 0.1; echo a; sleep 0.1; echo b", text, sizeof text), 0);
    EXPECT_STREQ(text, "a\nb\n");
    EXPECT_EQ(zel_run_command("sleep 0.1; exit 3", nullptr, 0), 3 << 8);
    EXPECT_THAT(use_the_network("red"), testing::IsEmpty());
    for (int i = 0; i < 200; ++i)
        zel_simulated_raise(1);
    EXPECT_TRUE(eventually([&] { return isr.count == 200; }));
    EXPECT_EQ(zel_get_total_mem() > 0, true);
    on_kernel_thread([] { EXPECT_EQ(sleepMs(30), 0); });

    pthread_mutex_t mutex;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    __wrap_pthread_mutex_init(&mutex, nullptr);
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += 1;
    __wrap_pthread_mutex_lock(&mutex);
    KernelThread waiter{Attributes{1}, [&] {
                            EXPECT_EQ(__wrap_pthread_mutex_lock(&mutex), 0);
                            EXPECT_EQ(__wrap_pthread_mutex_unlock(&mutex), 0);
                        }};
    EXPECT_EQ(__wrap_pthread_cond_timedwait(&cond, &mutex, &deadline), ETIMEDOUT);
    __wrap_pthread_mutex_unlock(&mutex);
    waiter.join();

    const int before = polls;
    EXPECT_TRUE(eventually([&] { return polls > before + 20; }));
    stop = true;
    rainmaker.join();
    EXPECT_GT(signals, 1000);
}

// --- Descriptors and children

TEST(StandardStreams, ThatAreClosedDoNoHarm) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    for (const auto& closed : {std::vector{1}, {0, 1}, {1, 2}, {0, 1, 2}}) {
        const pid_t child = fork();
        if (child == 0) {
            for (int fd : closed)
                close(fd);
            shell("ip netns add stale");
            start_kernel();
            start_receiving();
            const bool removed = shell("ls /run/netns").empty();
            const bool works = use_the_network("red").empty() && use_the_network("blue").empty();
            zel_get_free_mem();
            _exit(removed && works && eventually([] { return polls > 0; }) ? 0 : 1);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0) << "without " << testing::PrintToString(closed);
    }
}

TEST(Children, ThatNobodyWaitsForAreReportedAndTheNetworkWorks) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    std::signal(SIGCHLD, SIG_IGN);
    const Capture out{1};
    start_kernel();
    start_receiving();
    char text[1000];
    const std::string report = "\r\npclose() failed; No child processes\r\n";
    zel_vrf_create(text, sizeof text, "red");
    std::string expected;
    for (int i = 0; i < 7; ++i)
        expected += report;
    EXPECT_EQ(text, expected);
    zel_tun_ipv4_create(text, sizeof text, "red", 3);
    EXPECT_EQ(text, report + report);
    zel_tun_ipv4_destroy(nullptr, 0, "red", 3);
    std::signal(SIGCHLD, SIG_DFL);
    EXPECT_TRUE(
        eventually([] { return shell("ip -n red -br link").find("tun4_3") == std::string::npos; }));
}

// The descriptors beyond the standard streams that a child made by vfork and exec has.
std::string inherited_by_a_child() {
    const char* const list = "for fd in /proc/$$/fd/*; do case ${fd##*/} in 0|1|2) ;; "
                             "*) readlink $fd >&2;; esac; done; exit 0"; // no pipe of its own
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    const pid_t child = vfork();
    if (child == 0) {
        dup2(ends[1], 2);
        execl("/bin/sh", "sh", "-c", list, nullptr);
        _exit(1);
    }
    close(ends[1]);
    std::string result;
    char text[500];
    for (ssize_t length; (length = read(ends[0], text, sizeof text)) > 0;)
        result.append(text, static_cast<size_t>(length));
    close(ends[0]);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    return result;
}

TEST(Children, OfTheApplicationInheritNoDescriptorOfTheLibraryAtAnyMoment) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    const std::string usual = inherited_by_a_child();
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    std::thread user{[&] {
        {
            const Capture out{1};
            start_kernel();
        }
        start_receiving();
        Linux::LinuxInterruptMgr manager;
        for (; !stop; ++rounds)
            use_the_network("red");
    }};
    for (int i = 0; (i < 150 || rounds < 2) && !HasFailure(); ++i)
        EXPECT_EQ(inherited_by_a_child(), usual);
    stop = true;
    user.join();
}

// --- Tools

TEST(Tools, ThatAreMissingAreReportedByTheShell) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    setenv("PATH", "/nowhere", 1);
    const Capture out{1};
    start_kernel();
    start_receiving();
    char text[1000];
    zel_vrf_create(text, sizeof text, "red");
    EXPECT_THAT(text, testing::StartsWith("sh: 1: ip: not found\nsh: 1: ip: not found\n"));
    EXPECT_EQ(getNumOfCpus(), 1); // nor is there a grep to count them
    for (int i = 0; i < 3; ++i) {
        zel_tun_ipv4_create(text, sizeof text, "red", 3); // the driver makes it, here
        EXPECT_STREQ(text, "sh: 1: ip: not found\nsh: 1: ip: not found\n");
        zel_tun_ipv4_destroy(nullptr, 0, "red", 3);
        EXPECT_TRUE(eventually([] { return if_nametoindex("tun4_3") == 0; }));
    }
    EXPECT_TRUE(eventually([] { return polls > 0; }));
}

TEST(Tools, ThatPrintTooMuchOrDieInTheMiddleLeaveTheTextWhole) {
    std::vector<char> text(1000, '#');
    const struct {
        const char* command;
        const char* start;
        size_t length;
    } cases[] = {
        {"yes | head -c 100000000", "y\ny\n", 499},
        {"printf abc; kill -9 $$", "abc", 3},
        {"printf 'a\\0b'; sleep 0.2; kill -TERM $$", "a", 1},
        {"exec 1>&-; sleep 0.2", "", 0},
    };
    for (const auto& c : cases) {
        interposed::popen = [&](auto, const char* mode) { return real::popen(c.command, mode); };
        zel_tun_ipv4_status(text.data(), 500, "red", 3, true);
        EXPECT_THAT(text.data(), testing::StartsWith(c.start));
        EXPECT_EQ(std::strlen(text.data()), c.length) << c.command;
        EXPECT_EQ(text[500], '#');
    }
}

// --- Arguments

TEST(Arguments, AtAndBeyondTheirLimitsAreRefusedOrPassedOn) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    zel_tun_init();
    zel_tun_ipv4_create(nullptr, 0, "nowhere", 3);
    ASSERT_TRUE(bring_up(3));
    const std::vector<unsigned char> packet(1 << 20, 0x45);
    for (const size_t length : {size_t{0}, size_t{1}, size_t{19}, size_t{65535}, packet.size()}) {
        for (const int index : {3, 0, -1, INT_MIN, INT_MAX})
            zel_tun_ipv4_packet_send(index, packet.data(), length);
    }
    static char text[200];
    const std::string long_name(100'000, 'n');
    for (const std::string& name : {std::string{}, std::string(300, 'n'), long_name}) {
        zel_vrf_create(text, sizeof text, name.c_str());
        EXPECT_NE(*text, '\0');
        zel_vrf_destroy(text, sizeof text, name.c_str());
        EXPECT_NE(*text, '\0');
    }
    for (const int index : {INT_MIN, INT_MAX}) {
        zel_tun_ipv6_create(text, sizeof text, "nowhere", index);
        zel_tun_ipv6_mtu(text, sizeof text, "nowhere", index, index);
        EXPECT_THAT(text, HasSubstr("Cannot open network namespace \"nowhere\""));
        zel_tun_ipv6_destroy(text, 0, "nowhere", index);
    }
    EXPECT_EQ(setThreadAffinityCPU(INT_MIN), 0);
    EXPECT_EQ(setThreadAffinityCPU(INT_MAX), 0);
    EXPECT_EQ(__builtin_popcount(getThreadAffinityCPU()), 1);
}

TEST(Arguments, OfThreadsThatNoSystemGrantsAreRefusedWithItsError) {
    const auto refused = [](size_t stack, int priority) {
        Attributes attr{1};
        pthread_attr_setstacksize(attr, stack);
        const sched_param param{priority};
        kernel_priorities.app_base_priority = 0;
        const Capture quiet{2};
        __wrap_pthread_attr_setschedparam(attr, &param);
        pthread_t id = 1;
        const int result = __wrap_pthread_create(
            &id, attr, [](void*) -> void* { return nullptr; }, nullptr);
        EXPECT_EQ(id == 0, result != 0);
        return result;
    };
    EXPECT_EQ(refused(SIZE_MAX - SIZE_MAX / 8, 1), EAGAIN);
    for (const int priority : {INT_MIN, -1, 0, 100, INT_MAX})
        EXPECT_EQ(refused(16384, priority), 0) << "keeps its earlier priority";
    EXPECT_TRUE(eventually([] { return registered_threads() == 0; }));
}

} // namespace
