// What the library does when the system refuses: result, text, nothing left behind, and the next
// call works. The failures of one function alone are with that function's other cases.
#include "support/allocation_failure.hpp"
#include "support/test.hpp"

#include <new>

ZEL_INTERPOSE(int, pthread_create,
              (pthread_t * t, const pthread_attr_t* a, void* (*f)(void*), void* p), (t, a, f, p))
ZEL_INTERPOSE(int, pthread_getschedparam, (pthread_t t, int* p, sched_param* s), (t, p, s))
ZEL_INTERPOSE(int, pthread_setschedparam, (pthread_t t, int p, const sched_param* s), (t, p, s))
ZEL_INTERPOSE(int, timer_create, (clockid_t c, sigevent* e, timer_t* t), (c, e, t))
ZEL_INTERPOSE_TIME(int, timer_settime, (timer_t t, int f, const itimerspec* value, itimerspec* old),
                   (t, f, value, old))
ZEL_INTERPOSE(FILE*, popen, (const char* command, const char* mode), (command, mode))

namespace {

using namespace zel::test;

// --- Start-up

std::atomic<int> polls{0};
constexpr KernelPriorities table = {5, 4, 3, 0, 2, 100, 50, 150, 10};

void start_kernel() {
    if (zel_kernel_init(
            table, 1000, 0, [] { ++polls; }, nullptr) != 1 ||
        !zel_initialized())
        _exit(1);
}

TEST(StartUp, GoesOnWhenTheSystemRefuses) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    static std::atomic<bool> refused;
    const auto failing = [](int result) {
        return [result](auto...) {
            refused = true;
            return result;
        };
    };
    const std::pair<std::function<void()>, bool> cases[] = {
        {[&] { interposed::pthread_setschedparam = failing(EPERM); }, true},
        {[&] { interposed::pthread_getschedparam = failing(ESRCH); }, true},
        {[&] { interposed::timer_create = failing(-1); }, false},
        {[&] { interposed::timer_settime = failing(-1); }, false},
    };
    for (const auto& [refuse, ticks] : cases) {
        const int status = status_of_child([&fail = refuse, does_tick = ticks] {
            fail();
            const Capture out{1};
            start_kernel();
            if (kernel_priorities.linux_base_priority != 11)
                _exit(2);
            const bool tried = eventually([] { return refused.load(); });
            usleep(20'000); // for ticks that must not come
            if (!tried || (does_tick ? !eventually([] { return polls > 2; }) : polls > 0))
                _exit(3);
        });
        EXPECT_EQ(status, 0) << "ticks: " << ticks;
    }
}

TEST(StartUp, WithoutMemoryIsCompleteOrStopsTheProcess) {
    SKIP_IF_ALLOCATIONS_CANNOT_FAIL();
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    const Capture out{1}, err{2};
    int stops = 0;
    for (int n = 1, status = -1; status != 0; ++n) {
        status = status_of_child([n] {
            allocation_to_fail = n;
            start_kernel();
            if (allocation_to_fail == 0) // reached, and start-up did without
                _exit(7);
        });
        stops += WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT;
        ASSERT_TRUE(status == 0 || status == 7 << 8 || status == SIGABRT) << n << ": " << status;
    }
    EXPECT_GT(stops, 0);
}

// --- Interrupts

TEST(InterruptManager, ThrowsWithoutMemoryAndIsAsItWas) {
    SKIP_IF_ALLOCATIONS_CANNOT_FAIL();
    kernel_priorities = {0, 25, 0, 0, 0, 0, 0, 0, 20};
    Linux::LinuxInterruptMgr manager;
    const int failures = fail_each_allocation(
        [&] {
            try {
                manager.get(5);
            } catch (const std::bad_alloc&) {
            }
        },
        [&] { EXPECT_EQ(manager.getNumberOfVectors(), 0u); });
    EXPECT_EQ(failures, 3); // the source, its default routine, the map's node
    EXPECT_EQ(manager.getNumberOfVectors(), 1u);
}

// --- Commands and text

char text[1000];
constexpr size_t size = sizeof text;
// --- Lack of memory, allocation by allocation

TEST(Memory, ThatIsLackingIsReportedAndNothingIsKept) {
    SKIP_IF_ALLOCATIONS_CANNOT_FAIL();
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    const auto run_command = [] { zel_run_command("echo text", text, size); };
    run_command(); // what the system's library allocates once is not counted
    EXPECT_GT(zel_get_total_mem(), 0u);
    const auto check = [] { // a stream does without a buffer
        EXPECT_THAT(std::string{text},
                    testing::AnyOf("text\n", "popen() failed; Cannot allocate memory\r\n"));
    };
    EXPECT_GT(fail_each_allocation(run_command, check), 0);
    // The commands do nothing and fail nothing; TUNSETIFF makes the device.
    interposed::popen = [](const char*, const char* mode) {
        const int saved = std::exchange(allocation_to_fail, 0);
        FILE* stream = real::popen(":", mode);
        setvbuf(stream, nullptr, _IONBF, 0);
        allocation_to_fail = saved;
        return stream;
    };
    zel_tun_init();
    static const char* const name = "an instance with a long name";
    static constexpr in6_addr net{};
    static constexpr char lack[] = "Out of memory.\r\n";
    const std::pair<void (*)(), const char*> operations[] = {
        {[] { zel_vrf_create(text, size, name); }, lack},
        {[] { zel_external_traffic_match_criteria_add(text, size, 17, 65535, 1); }, lack},
        {[] { zel_tun_ipv4_create(text, size, name, 3); }, lack},
        {[] { zel_tun_ipv4_mtu(text, size, name, 3, 1400); }, lack},
        {[] { zel_ipv6_route_add(text, size, name, &net, 7, 32, nullptr, &net, 9); }, lack},
        {[] { zel_external_traffic_match_criteria_del(text, size, 17, 65535, 1); }, lack},
        {[] { zel_tun_ipv4_destroy(text, 0, name, 3); }, ""},
        {[] { zel_vrf_destroy(text, size, name); }, lack},
        {[] { zel_get_total_mem(); }, ""},
        {remove_all_network_namespaces, ""},
    };
    for (const auto& [run, report] : operations) {
        const auto before = open_files();
        *text = '\0';
        EXPECT_GT(fail_each_allocation(run,
                                       [&, expected = report] {
                                           EXPECT_STREQ(text, expected);
                                           EXPECT_EQ(open_files(), before);
                                       }),
                  0);
    }
}

// --- The receive thread

TEST(ReceiveThread, ThatIsRefusedLeavesNothingAndCanBeRepeated) {
    zel_tun_init();
    interposed::pthread_create = [](auto...) { return EAGAIN; };
    const auto start = [] { zel_tun_packet_init(nullptr, nullptr, nullptr, 10); };
    EXPECT_EQ(printed_on(2, start),
              "__w_pthread_create; pthread_create: Resource temporarily unavailable\n");
    EXPECT_EQ(registered_threads(), 0u);
    const long before = allocations_alive;
    EXPECT_NE(printed_on(2, start), "");
    EXPECT_EQ(allocations_alive, before);
    allocation_to_fail = 1;
    EXPECT_TRUE(!can_fail_allocations ||
                printed_on(2, start) == "zel_tun_packet_init: Cannot allocate memory\n");
    interposed::pthread_create = nullptr;
    start();
    EXPECT_EQ(registered_threads(), 1u);
}

} // namespace
