// What the library does when the system refuses: result, text, nothing left behind, and the next
// call works. The failures of one function alone are with that function's other cases.
#include "support/allocation_failure.hpp"
#include "support/commands.hpp"
#include "support/test.hpp"
#include "support/tun_interface.hpp"

#include <new>

ZEL_INTERPOSE(int, pthread_create,
              (pthread_t * t, const pthread_attr_t* a, void* (*f)(void*), void* p), (t, a, f, p),
              noexcept)
ZEL_INTERPOSE(int, pthread_getschedparam, (pthread_t t, int* p, sched_param* s), (t, p, s),
              noexcept)
ZEL_INTERPOSE(int, pthread_setschedparam, (pthread_t t, int p, const sched_param* s), (t, p, s),
              noexcept)
ZEL_INTERPOSE(int, timer_create, (clockid_t c, sigevent* e, timer_t* t), (c, e, t), noexcept)
ZEL_INTERPOSE_TIME(int, timer_settime, (timer_t t, int f, const itimerspec* value, itimerspec* old),
                   (t, f, value, old), noexcept)
ZEL_INTERPOSE(int, pclose, (FILE * stream), (stream), )
ZEL_INTERPOSE(ssize_t, read, (int fd, void* data, size_t size), (fd, data, size), )
ZEL_INTERPOSE(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size), )

namespace {

using namespace zel::test;
using testing::ElementsAre;
using testing::IsEmpty;

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
        const int status = status_of_child([&refuse = refuse, ticks = ticks] {
            refuse();
            const Capture out{1};
            start_kernel();
            if (kernel_priorities.linux_base_priority != 11)
                _exit(2);
            const bool tried = eventually([] { return refused.load(); });
            usleep(20'000); // for ticks that must not come
            if (!tried || (ticks ? !eventually([] { return polls > 2; }) : polls > 0))
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
                                       [&, report = report] {
                                           EXPECT_STREQ(text, report);
                                           EXPECT_EQ(open_files(), before);
                                       }),
                  0);
    }
}

// --- The receive thread

struct Stack {
    std::atomic<int> received{0}, allocated{0}, freed{0};
    std::atomic<int> failing_allocation{0}; // of the receive thread
} stack;

void alloc_buffer(void** handle, void** data, int) {
    static char buffer[65536];
    *handle = *data = buffer;
    ++stack.allocated;
    if (const int n = stack.failing_allocation.exchange(0))
        allocation_to_fail = n;
}
void free_buffer(void*) {
    ++stack.freed;
}
void receive(int, void*, int) {
    ++stack.received;
}

struct ReceiveThread : testing::Test {
    void SetUp() override {
        ENTER_PRIVATE_NAMESPACES_OR_SKIP();
        zel_tun_init();
        zel_tun_packet_init(receive, alloc_buffer, free_buffer, 10);
        zel_tun_ipv4_create(nullptr, 0, "red", 1);
        ASSERT_TRUE(bring_up(1));
        socket = socket_through(1);
        commands.take();
    }

    bool passes_a_packet() {
        const int before = stack.received;
        ::send(socket, "x", 1, 0);
        return eventually([&] { return stack.received > before; });
    }

    Commands& commands = record_commands(true);
    int socket = -1;
};

TEST_F(ReceiveThread, GivesTheBufferBackWhenAReadFailsAndGoesOn) {
    for (int error : {EINTR, EAGAIN, EIO, ENOMEM}) {
        const int freed = stack.freed, allocated = stack.allocated;
        interposed::read = [error, left = 1](int fd, void* data, size_t n) mutable -> ssize_t {
            if (n != 1500 || left-- <= 0)
                return real::read(fd, data, n);
            errno = error;
            return -1;
        };
        EXPECT_TRUE(passes_a_packet());
        EXPECT_EQ(stack.freed - freed, 1);
        EXPECT_EQ(stack.allocated - allocated, 2);
    }
    static std::atomic<int> writes{0};
    interposed::write = [](int, const void*, size_t) -> ssize_t { return ++writes, 3; };
    zel_tun_ipv4_packet_send(1, "packet", 6); // short, and neither told nor repeated
    EXPECT_EQ(writes, 1);
}

TEST_F(ReceiveThread, DeletesInTheNextPassWhenThePipeCannotBeRead) {
    static std::atomic<int> failures;
    interposed::read = [](int fd, void* data, size_t n) -> ssize_t {
        if (n != 100 || ++failures > 1)
            return real::read(fd, data, n);
        real::read(fd, data, n); // the token is gone with the error
        errno = EIO;
        return -1;
    };
    zel_tun_ipv4_destroy(nullptr, 0, "red", 7);
    EXPECT_TRUE(eventually([] { return failures > 0; }));
    EXPECT_THAT(commands.take(), testing::IsEmpty());
    EXPECT_TRUE(passes_a_packet()); // which is that pass, and not one of a further wake-up
    Strings run;
    EXPECT_TRUE(eventually([&] { return !(run = commands.take()).empty(); }));
    EXPECT_THAT(run, ElementsAre(testing::HasSubstr("tun4_7")));
}

TEST_F(ReceiveThread, SurvivesADeletionThatCannotBeRun) {
    static std::atomic<int> starts;
    interposed::popen = [](auto...) {
        ++starts;
        return nullptr;
    };
    zel_tun_ipv4_destroy(nullptr, 0, "red", 7);
    EXPECT_TRUE(eventually([] { return starts == 1; }));
    EXPECT_TRUE(passes_a_packet());
    if (!can_fail_allocations)
        return;
    stack.failing_allocation = 1; // the next one is that of the deletion's command
    EXPECT_TRUE(passes_a_packet());
    zel_tun_ipv4_destroy(nullptr, 0, "red", 8);
    zel_tun_ipv4_destroy(nullptr, 0, "red", 9);
    EXPECT_TRUE(eventually([] { return starts == 2; })); // that of 9
    EXPECT_TRUE(passes_a_packet());
}

TEST(ReceiveThreadStart, ThatIsRefusedLeavesNothingAndCanBeRepeated) {
    zel_tun_init();
    interposed::pthread_create = [](auto...) { return EAGAIN; };
    const auto refused = [] { zel_tun_packet_init(receive, alloc_buffer, free_buffer, 10); };
    EXPECT_EQ(printed_on(2, refused),
              "__w_pthread_create; pthread_create: Resource temporarily unavailable\n");
    EXPECT_EQ(registered_threads(), 0u);
    const long before = allocations_alive;
    EXPECT_NE(printed_on(2, refused), "");
    EXPECT_EQ(allocations_alive, before);
    allocation_to_fail = 1;
    EXPECT_TRUE(!can_fail_allocations ||
                printed_on(2, refused) == "zel_tun_packet_init: Cannot allocate memory\n");
    interposed::pthread_create = nullptr;
    zel_tun_packet_init(receive, alloc_buffer, free_buffer, 10);
    EXPECT_EQ(registered_threads(), 1u);
}

} // namespace
