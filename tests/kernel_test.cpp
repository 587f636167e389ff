#include "support/test.hpp"

#include <zelkernel/simulated_platform.h>

#include <optional>

ZEL_INTERPOSE(FILE*, fopen, (const char* path, const char* mode), (path, mode))
ZEL_INTERPOSE(int, pthread_create,
              (pthread_t * id, const pthread_attr_t* attr, void* (*start)(void*), void* arg),
              (id, attr, start, arg))
ZEL_INTERPOSE(FILE*, popen, (const char* command, const char* mode), (command, mode))
ZEL_INTERPOSE(int, pclose, (FILE * stream), (stream))

namespace {

using namespace zel::test;
using Drivers::Devices::InterruptProcessing::LinuxDeferredServiceController;

constexpr KernelPriorities table = {5, 4, 3, 77, 2, 100, -50, 150, 10};

std::atomic<int> polls, polls_elsewhere;
void poll() {
    ++polls;
    polls_elsewhere += zel_get_current_context() != 1 || isItSafeToBlock() != 0;
}
void update_rtc(clockid_t, timespec*) {}

// The caller's priority (0: time sharing), DEBUGGER, and the caller's priority afterwards.
struct StartUp : testing::TestWithParam<std::tuple<int, std::optional<std::string>, int>> {};

TEST_P(StartUp, RunsItsSteps) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    const auto [fifo, debugger, priority] = GetParam();
    EXPECT_EQ(zel_initialized(), 0);
    EXPECT_EQ(isItSafeToBlock(), 1);
    EXPECT_EQ(zel_timer_priority(), 0);
    EXPECT_EQ(AdAreInterruptsEnabled(), 1);
    EXPECT_EQ(zel_get_interrupt_mgr(), nullptr);
    std::ofstream("/run/netns/left_over");
    ASSERT_TRUE(fifo == 0 || become_fifo(fifo));
    if (debugger)
        setenv("DEBUGGER", debugger->c_str(), 1);
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM); // is unblocked nevertheless
    sigaddset(&signals, SIGUSR1); // stays as it is
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    timespec before, after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    {
        const Capture out{1};
        interposed::pthread_create = [](auto... arguments) { // the first ticks come before it ends
            EXPECT_EQ(updateRTCFunc, update_rtc);
            const int result = real::pthread_create(arguments...);
            return eventually([] { return polls > 2; }) ? result : -1;
        };
        interposed::popen = [](auto... arguments) { // among them the removal of the left over one
            EXPECT_EQ(zel_initialized(), 0);
            return real::popen(arguments...);
        };
        EXPECT_EQ(zel_kernel_init(table, 1000, 99, poll, update_rtc), 1);
    }
    clock_gettime(CLOCK_MONOTONIC, &after);

    const int base = 10 + priority;
    const ThreadInfo self = thread_info(gettid());
    EXPECT_EQ(self.policy, SCHED_FIFO);
    EXPECT_EQ(self.priority, priority);
    EXPECT_FALSE(self.blocks(SIGTERM) || self.blocks(SIGHUP));
    EXPECT_TRUE(self.blocks(SIGUSR1));
    KernelPriorities expected = table;
    expected.linux_base_priority = base;
    EXPECT_EQ(std::memcmp(&kernel_priorities, &expected, sizeof expected), 0);
    EXPECT_EQ(priorities_initialized, 1);
    EXPECT_EQ(initialized, 1);
    EXPECT_EQ(zel_initialized(), 1);
    EXPECT_EQ(useInterruptMutex, 0);
    EXPECT_EQ(zel_timer_priority(), 2 + base);
    EXPECT_EQ(updateRTCFunc, update_rtc);
    EXPECT_EQ(starttimeInNs, starttime.tv_sec * int64_t{1'000'000'000} + starttime.tv_nsec);
    EXPECT_GE(starttimeInNs, before.tv_sec * int64_t{1'000'000'000} + before.tv_nsec);
    EXPECT_LE(starttimeInNs, after.tv_sec * int64_t{1'000'000'000} + after.tv_nsec);
    EXPECT_NE(LinuxDeferredServiceController::instance, nullptr);
    EXPECT_FALSE(std::filesystem::exists("/run/netns/left_over"));
    EXPECT_EQ(open_files("zelkernel-stats"), 0); // are to be asked for

    const ThreadInfo kcall = thread_named("KCall");
    EXPECT_EQ(kcall.policy, SCHED_FIFO);
    EXPECT_EQ(kcall.priority, 3 + base);
    EXPECT_TRUE(kcall.blocks(SIGTERM) && kcall.blocks(SIGHUP));
    EXPECT_EQ(polls_elsewhere, 0);
    EXPECT_EQ(zel_get_current_context(), 0);

    int ceiling = -1;
    pthread_mutex_getprioceiling(&interrupts_disabled_mutex, &ceiling);
    EXPECT_EQ(ceiling, 5 + base);
    for (int depth = 0; depth < 2; ++depth)
        EXPECT_EQ(pthread_mutex_lock(&interrupts_disabled_mutex), 0);
    EXPECT_EQ(thread_info(gettid()).priority, 5 + base);

    const int64_t start = starttimeInNs;
    EXPECT_EQ(zel_kernel_init({}, 5, 0, nullptr, nullptr), 1);
    EXPECT_EQ(std::memcmp(&kernel_priorities, &expected, sizeof expected), 0);
    EXPECT_EQ(starttimeInNs, start);
    EXPECT_EQ(updateRTCFunc, update_rtc);
    EXPECT_EQ(KCall_nsTickPeriod, 1'000'000u);
}

INSTANTIATE_TEST_SUITE_P(Callers, StartUp,
                         testing::Values(std::tuple{0, std::nullopt, 1},
                                         std::tuple{40, std::nullopt, 40},
                                         std::tuple{40, "TRUE", 1}, std::tuple{0, "TRUE", 1},
                                         std::tuple{40, "true", 40}, std::tuple{40, "TRUE ", 40},
                                         std::tuple{40, "", 40}));

TEST(Fatal, WritesOneLineAndAborts) {
    std::fprintf(stderr, "In use from here on.\n");
    const auto fatal = [] {
        on_kernel_thread(
            [] { zel_fatal("Could not create KCALL mutex.", "src/LinuxKcallQueue", 132); });
    };
    EXPECT_EXIT(fatal(), testing::KilledBySignal(SIGABRT),
                prints_only("src/LinuxKcallQueue:132 Could not create KCALL mutex\\.\n"));
    EXPECT_EXIT(zel_fatal("", "f", INT32_MIN), testing::KilledBySignal(SIGABRT),
                prints_only("f:-2147483648 \n"));
    EXPECT_EXIT((close(2), zel_fatal("m", "f", 1)), testing::KilledBySignal(SIGABRT), "^$");
}

TEST(ReservedSignals, AreListedByRole) {
    const auto list = [](const int* (*get)(unsigned int*)) {
        unsigned int count = 0;
        EXPECT_EQ(get(nullptr), nullptr);
        const int* signals = get(&count);
        return std::vector<int>(signals, signals + count);
    };
    EXPECT_EQ(list(getAllSignalsInUse),
              (std::vector{11, 4, 6, 7, 8, 6, 3, 31, 15, 1, 12, 14, SIGRTMIN, SIGRTMIN + 1, 17}));
    EXPECT_EQ(list(getAllSignalsThatTripExceptionReportGeneration),
              (std::vector{11, 4, 6, 7, 8, 6, 3, 31}));
    EXPECT_EQ(list(getAllSignalsThatShutdownZel), (std::vector{15, 1}));
    EXPECT_EQ(getThreadSuspendSignalForExceptionReportGeneration(), 12);
    EXPECT_EQ(getExternalProcessExceptionSignal(), 14);
}

TEST(Memory, IsReadFromMeminfo) {
    struct Case {
        std::string text;
        uint64_t total;
        int64_t free;
    };
    const std::string filler(150, 'x');
    for (const Case& c :
         {Case{"MemTotal:        1024000 kB\nMemFree:            1000 kB\nInactive(anon):   7 kB\n"
               "Inactive:            500 kB\nMemFree:           9 kB\n",
               1048576000, 1536000},
          Case{"1: Inactive:  3 kB\n" + filler + "\nMemTotal 9\nMemTotal: 2 kB\n", 0, 3072},
          Case{"1: SwapMemTotal: 4194304 kB\nMemTotal: 2 kB\n", uint64_t{1} << 32, 0},
          Case{"MemTotal:", 0, 0}, Case{"\n", 0, 0}}) {
        interposed::fopen = [&](const char* path, const char* mode) {
            EXPECT_STREQ(path, "/proc/meminfo");
            EXPECT_STREQ(mode, "r");
            return fmemopen(const_cast<char*>(c.text.data()), c.text.size(), "r");
        };
        EXPECT_EQ(zel_get_total_mem(), c.total) << c.text;
        EXPECT_EQ(zel_get_free_mem(), c.free) << c.text;
    }
    interposed::fopen = [](auto...) { return nullptr; };
    EXPECT_EQ(printed_on(1, [] { EXPECT_EQ(zel_get_total_mem(), 0u); }),
              "Failed to open file /proc/meminfo\n");
    EXPECT_EQ(printed_on(1, [] { EXPECT_EQ(zel_get_free_mem(), 0); }),
              "Failed to open file /proc/meminfo\n");
    interposed::fopen = nullptr;
    EXPECT_GT(zel_get_total_mem(), static_cast<uint64_t>(zel_get_free_mem()));
}

struct Command {
    const char* command;
    size_t size;
    const char* output;
    int status;
};

void run_commands(std::initializer_list<Command> commands) {
    for (const Command& c : commands) {
        std::string buffer(c.size + 1, '#');
        EXPECT_EQ(zel_run_command(c.command, buffer.data(), c.size), c.status) << c.command;
        EXPECT_STREQ(buffer.c_str(), c.output) << c.command;
        EXPECT_EQ(buffer[c.size], '#') << c.command;
    }
}

TEST(RunCommand, CapturesWhatFitsAndReturnsTheStatus) {
    interrupt_calls();
    interposed::pclose = [](FILE* stream) {
        EXPECT_EQ(fcntl(fileno(stream), F_GETFD), FD_CLOEXEC);
        return real::pclose(stream);
    };
    run_commands({{"echo abc", 256, "abc\n", 0},
                  {"echo abc", 5, "abc\n", 0},
                  {"echo abc", 3, "ab", 0},
                  {"exit 3", 1, "", 768},
                  {"exit 2", 256, "", 512},
                  {"true", 256, "", 0},
                  {"printf 'a\\0b'; kill -9 $$", 256, "a", 9},
                  {"exec 1>&-; sleep 0.1; exit 4", 256, "", 1024},
                  {"echo a; sleep 0.1; echo b; sleep 0.1", 256, "a\nb\n", 0},
                  {"echo no 2>/dev/null >&2", 256, "", 0},
                  {"exec yes", 5, "y\ny\n", SIGPIPE}});
    EXPECT_EQ(zel_run_command("exit 2", nullptr, 0), 512);
    // On any processor, whichever one the caller is kept on, and goes on to be kept on.
    constexpr const char* processors = "grep Cpus_allowed_list: /proc/self/status";
    char before[256], after[256];
    zel_run_command(processors, before, sizeof before);
    setThreadAffinityCPU(0);
    zel_run_command(processors, after, sizeof after);
    EXPECT_STREQ(after, before);
    EXPECT_EQ(thread_info(gettid()).status["Cpus_allowed_list"], "0");
    EXPECT_EQ(zel_run_command("trap '' PIPE; sleep 0.1; echo x 2>/dev/null || exit 4", nullptr, 0),
              4 * 256);
}

TEST(RunCommand, ReportsItsOwnFailuresAsText) {
    std::signal(SIGCHLD, SIG_IGN);
    run_commands({{"echo abc", 256, "abc\n\r\npclose() failed; No child processes\r\n", 39},
                  {"echo abc", 10, "abc\n\r\npcl", 39},
                  {"echo abc", 3, "ab", 39},
                  {"echo abc", 1, "", 39}});
    EXPECT_EQ(zel_run_command("true", nullptr, 0), -1);
    interposed::popen = [](auto...) {
        errno = EMFILE;
        return nullptr;
    };
    run_commands({{"echo abc", 256, "popen() failed; Too many open files\r\n", 37},
                  {"echo abc", 8, "popen()", 37},
                  {"echo abc", 1, "", 37}});
    EXPECT_EQ(zel_run_command("true", nullptr, 0), 0);
}

// Everything at once, for an exit() to come into. All under one priority: the system's own lock of
// the address space knows no inheritance, and one waiting for it at a higher priority can spin for
// ever on the processor that the holder needs.
void start_everything() {
    zel_kernel_init(table, 200, 0, poll, update_rtc);
    static Linux::LinuxInterruptMgr manager;
    manager.get(1)->connect(new Linux::DefaultIsr(1));
    manager.get(1)->enable();
    static const auto forever = [](auto action) {
        KernelThread(Attributes{1}, [action] {
            for (;; usleep(20))
                action();
        });
    };
    forever([] { zel_simulated_raise(1); });
    forever([] { on_kernel_thread([] {}); });
    forever([] { kcall_enqueue(reinterpret_cast<zel_word_t>(&Empty), 0, 0, 0); });
    forever([] {
        pthread_cond_t cond;
        __wrap_pthread_cond_init(&cond, nullptr);
        __wrap_pthread_cond_destroy(&cond);
    });
    forever([] {
        char text[10];
        zel_run_command("echo text", text, sizeof text);
    });
}

// Flushed when all destructors have run: the other threads go on for a while without them.
void hold_up_the_end() {
    cookie_io_functions_t functions{};
    functions.write = [](void*, const char*, size_t size) {
        usleep(3000);
        return static_cast<ssize_t>(size);
    };
    std::fputs("text", fopencookie(nullptr, "w", functions));
}

TEST(Exit, EndsTheProcessAtAnyMomentWithAllThreadsRunning) {
    ENTER_PRIVATE_NAMESPACES_OR_SKIP();
    if (running_under_user_emulation())
        GTEST_SKIP() << "the emulator's own locks know no priorities";
    const int rounds = under_thread_sanitizer ? 6 : 60; // it sleeps a second at each exit
    for (int i = 0; i < rounds; ++i) {
        const int status = status_of_child([i] {
            dup2(open("/dev/null", O_WRONLY), 1);
            hold_up_the_end();
            start_everything();
            usleep(static_cast<useconds_t>(i * 9000 / rounds));
            if (i % 2 == 0)
                std::exit(7);
            on_kernel_thread([] { std::exit(7); });
        });
        ASSERT_EQ(status, 7 << 8) << "round " << i;
    }
}

} // namespace
