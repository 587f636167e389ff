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
    const struct {
        std::function<void()> refuse;
        int base;
        bool ticks;
    } cases[] = {
        {[&] { interposed::pthread_setschedparam = failing(EPERM); }, 11, true},
        {[&] { interposed::pthread_getschedparam = failing(ESRCH); }, 11, true},
        {[&] { interposed::timer_create = failing(-1); }, 11, false},
        {[&] { interposed::timer_settime = failing(-1); }, 11, false},
    };
    for (const auto& c : cases) {
        const int status = status_of_child([&] {
            c.refuse();
            const Capture out{1};
            start_kernel();
            kcall_enqueue(reinterpret_cast<zel_word_t>(&Empty), 0, 0, 0);
            if (kernel_priorities.linux_base_priority != c.base)
                _exit(2);
            const bool tried = eventually([] { return refused.load(); });
            usleep(20'000); // for ticks that must not come
            if (!tried || (c.ticks ? !eventually([] { return polls > 2; }) : polls > 0))
                _exit(3);
        });
        EXPECT_EQ(status, 0) << "case " << &c - cases;
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
std::string repeated(const char* part, int count) {
    std::string result;
    while (count-- > 0)
        result += part;
    return result;
}

TEST(Commands, ThatCannotBeStartedOrWaitedForAreReportedEachAndTheStateChanges) {
    const auto operations = {
        std::pair{+[] { zel_external_traffic_match_criteria_add(text, size, 1, 0, 0); }, 0},
        std::pair{+[] { zel_vrf_create(text, size, "red"); }, 1 + 2 + 6},
        std::pair{+[] { zel_external_traffic_match_criteria_del(text, size, 1, 0, 0); }, 2},
        std::pair{+[] { zel_vrf_destroy(text, size, "red"); }, 1},
        std::pair{+[] { zel_external_traffic_match_criteria_add(text, size, 1, 0, 0); }, 0},
        std::pair{+[] { zel_tun_ipv6_status(text, size, "red", 3, true); }, 1},
        std::pair{+[] { zel_external_traffic_match_criteria_del(text, size, 1, 0, 0); }, 0},
    };
    const auto before = open_files();
    interposed::popen = [](auto...) {
        errno = EMFILE;
        return nullptr;
    };
    for (const auto& [run, commands] : operations) {
        run();
        EXPECT_EQ(text, repeated("popen() failed; Too many open files\r\n", commands));
    }
    interposed::popen = [](auto, const char* mode) { return real::popen("echo x", mode); };
    interposed::pclose = [](FILE* stream) {
        real::pclose(stream);
        errno = EIO;
        return -1;
    };
    for (const auto& [run, commands] : operations) {
        run();
        EXPECT_EQ(text, repeated("x\n\r\npclose() failed; Input/output error\r\n", commands));
    }
    EXPECT_EQ(open_files(), before);
}

TEST(Commands, OfTheCleanUpThatCannotBeStartedAreReportedAndTheScanGoesOn) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    for (const char* name : {"/run/netns/1", "/run/netns/2"})
        std::ofstream{name};
    static std::string commands;
    interposed::popen = [](const char* command, auto) {
        commands += command;
        errno = EAGAIN;
        return nullptr;
    };
    const std::string printed = printed_on(1, remove_all_network_namespaces);
    for (const char* name : {"1", "2"}) {
        EXPECT_THAT(commands, testing::HasSubstr("ip netns del \"" + std::string{name} + "\""));
        EXPECT_THAT(printed,
                    testing::HasSubstr("Removing network namespace \"" + std::string{name} +
                                       "\"\r\npopen() failed; Resource temporarily "
                                       "unavailable\r\n\r\n"));
    }
}

// --- Lack of memory, allocation by allocation

TEST(Memory, ThatIsLackingIsReportedAndNothingIsKept) {
    SKIP_IF_ALLOCATIONS_CANNOT_FAIL();
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    static uint64_t total;
    const auto descriptors = open_files();
    const std::pair<void (*)(), const char*> operations[] = {
        {[] { zel_run_command("echo text", text, size); }, "text\n"},
        {[] { total = zel_get_total_mem(); }, ""},
        {remove_all_network_namespaces, ""},
    };
    for (const auto& [run, undisturbed] : operations) {
        run(); // what the system's library allocates once is not counted
        const auto check = [&, undisturbed = undisturbed] { // a stream does without a buffer
            EXPECT_THAT(
                text, testing::AnyOf(testing::StrEq(undisturbed),
                                     testing::StrEq("popen() failed; Cannot allocate memory\r\n")));
            EXPECT_EQ(open_files(), descriptors);
            *text = '\0';
        };
        *text = '\0';
        EXPECT_GT(fail_each_allocation(run, check), 0);
    }
    EXPECT_GT(total, 0u);
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
    interposed::write = [](int, const void*, size_t) -> ssize_t { return 3; };
    zel_tun_ipv4_packet_send(1, "packet", 6); // short, and nobody is told
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
    {
        const Capture quiet{2};
        const long before = allocations_alive;
        refused();
        EXPECT_EQ(allocations_alive, before);
    }
    interposed::pthread_create = nullptr;
    zel_tun_packet_init(receive, alloc_buffer, free_buffer, 10);
    EXPECT_EQ(registered_threads(), 1u);
}

} // namespace
