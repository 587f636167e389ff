#include "support/manual_tick.hpp"
#include "support/test.hpp"

#include <optional>

ZEL_INTERPOSE(int, pthread_mutex_init, (pthread_mutex_t * m, const pthread_mutexattr_t* a), (m, a))
ZEL_INTERPOSE(int, pthread_mutex_lock, (pthread_mutex_t * m), (m))
ZEL_INTERPOSE(int, pthread_mutex_unlock, (pthread_mutex_t * m), (m))

namespace {

using namespace zel::test;
using testing::ElementsAre;

constexpr int kcall_priority = 60;

std::vector<zel_word_t> ran; // first arguments, by the kernel-call thread alone
std::atomic<int>& polls = ManualTick::polls;

zel_word_t word(void (*function)(zel_word_t, zel_word_t, zel_word_t)) {
    return reinterpret_cast<zel_word_t>(function);
}
void note(zel_word_t a, zel_word_t, zel_word_t) {
    ran.push_back(a);
}
void other(zel_word_t a, zel_word_t, zel_word_t) {
    ran.push_back(a + 100);
}

struct Queue : testing::Test {
    void SetUp() override {
        ticks.emplace(kcall_priority);
        info = thread_named("KCall");
    }
    void tick() { ASSERT_TRUE(ticks->tick()); }

    std::optional<ManualTick> ticks;
    ThreadInfo info;
};

TEST_F(Queue, KeepsItsThreadAsTheKernelShowsIt) {
    EXPECT_EQ(info.policy, SCHED_FIFO);
    EXPECT_EQ(info.priority, kcall_priority);
    EXPECT_EQ(info.status.at("Cpus_allowed_list"), all_cpus());
    // The kernel shows a signal that is being waited for as not blocked: asked from inside.
    static sigset_t blocked;
    kcall_enqueue(word([](zel_word_t, zel_word_t, zel_word_t) {
                      pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
                  }),
                  0, 0, 0);
    tick();
    EXPECT_EQ(sigismember(&blocked, SIGRTMIN), 1);
    EXPECT_EQ(sigismember(&blocked, SIGTERM), 0); // blocking that one is start-up's part
    EXPECT_EQ(sigismember(&mask, SIGRTMIN), 1);
    EXPECT_EQ(sev.sigev_notify, SIGEV_THREAD_ID);
    EXPECT_EQ(sev.sigev_signo, SIGRTMIN);
    EXPECT_EQ(sev._sigev_un._tid, info.tid);
    EXPECT_EQ(sev.sigev_value.sival_ptr, &timer_id);
    unsigned int count = 0;
    pthread_t id = 0;
    getCopyOfCurrentPthreadIds(&id, 1, &count);
    EXPECT_EQ(id, ticks->thread);
    EXPECT_EQ(zel_get_current_context(), 0);
}

TEST_F(Queue, Keeps1023CallsInOrderAndDropsTheNext) {
    EXPECT_EQ(KCallIn, &KCallList[0]);
    EXPECT_EQ(KCallOut, &KCallList[0]);
    for (zel_word_t i = 1; i <= 1024; ++i)
        EXPECT_EQ(kcall_enqueue(word(note), i, 20, 30), 0);
    EXPECT_EQ(KCallIn, &KCallList[1023]);
    EXPECT_EQ(KCallList[1].function, word(note));
    EXPECT_THAT(KCallList[1].arguments, ElementsAre(1, 20, 30));
    EXPECT_EQ(KCallList[0].function, 0u);
    tick();
    ASSERT_EQ(ran.size(), 1023u);
    for (zel_word_t i = 0; i < 1023; ++i)
        EXPECT_EQ(ran[i], i + 1);

    kcall_enqueue(word(note), 0, 0, 0); // the 1024th goes into entry 0
    tick();
    EXPECT_EQ(KCallIn, &KCallList[0]);
    EXPECT_EQ(KCallOut, &KCallList[0]);
}

TEST_F(Queue, RunsCallsQueuedByACallInTheSamePass) {
    static int polls_before, polls_after;
    const auto first = [](zel_word_t, zel_word_t, zel_word_t) {
        polls_before = polls;
        EXPECT_EQ(KCallLevel, 1);
        EXPECT_EQ(KCallOut, &KCallList[0]); // pending until it has run
        EXPECT_EQ(zel_get_current_context(), 1);
        EXPECT_EQ(isItSafeToBlock(), 0);
        kcall_enqueue(word(note), 3, 0, 0);
        kcall_dequeue(word(note), 2, 0, 0); // during a pass: nothing
        pthread_kill(pthread_self(), SIGRTMIN);
        pthread_kill(pthread_self(), SIGRTMIN);
    };
    kcall_enqueue(word(first), 0, 0, 0);
    kcall_enqueue(word(note), 2, 0, 0);
    kcall_enqueue(word([](zel_word_t, zel_word_t, zel_word_t) { polls_after = polls; }), 0, 0, 0);
    tick();
    EXPECT_THAT(ran, ElementsAre(2, 3));
    EXPECT_EQ(polls_before, 1); // the poller had run before
    EXPECT_EQ(polls_after, 1);
}

TEST_F(Queue, CancelsEveryPendingCallWithTheSameFourWords) {
    for (int round = 0; round < 2; ++round) {
        kcall_enqueue(word(note), 1, 2, 3);
        kcall_enqueue(word(note), 2, 2, 4);
        kcall_enqueue(word(note), 3, 9, 3);
        kcall_enqueue(word(other), 1, 2, 3);
    }
    kcall_dequeue(word(note), 2, 2, 3);
    kcall_dequeue(word(note), 2, 2, 0);
    kcall_dequeue(word(note), 3, 2, 3);
    kcall_dequeue(word(note), 1, 2, 3);
    for (int entry : {1, 5}) {
        EXPECT_EQ(KCallList[entry].function, word(Empty));
        EXPECT_THAT(KCallList[entry].arguments, ElementsAre(1, 2, 3));
    }
    tick();
    EXPECT_THAT(ran, ElementsAre(2, 3, 101, 2, 3, 101));
    kcall_dequeue(word(note), 3, 9, 3); // is not pending any more
    EXPECT_EQ(KCallList[3].function, word(note));
}

// The poller runs under the lock, a call without it; what happens while a caller waits for the lock
// counts, and its own change is whole when the lock is free again.
TEST_F(Queue, IsReadAndChangedUnderItsLockAlone) {
    static std::string steps; // of the kernel-call thread
    static std::function<void()> meanwhile;
    static const KernelCall* last_at_unlock;
    interposed::pthread_mutex_lock = [](pthread_mutex_t* mutex) {
        if (mutex == &kcall_mutex && zel_get_current_context() == 0 && meanwhile != nullptr)
            std::exchange(meanwhile, nullptr)();
        const int result = real::pthread_mutex_lock(mutex);
        if (mutex == &kcall_mutex && zel_get_current_context() == 1)
            steps += '(';
        return result;
    };
    interposed::pthread_mutex_unlock = [](pthread_mutex_t* mutex) {
        if (mutex == &kcall_mutex && zel_get_current_context() == 1)
            steps += ')';
        last_at_unlock = KCallIn;
        return real::pthread_mutex_unlock(mutex);
    };
    const auto call = [](zel_word_t, zel_word_t, zel_word_t) { steps += "call"; };
    const auto queue = [&] { kcall_enqueue(word(call), 0, 0, 0); };
    const auto cancel = [&] { kcall_dequeue(word(call), 0, 0, 0); };
    meanwhile = queue;
    queue();
    EXPECT_EQ(last_at_unlock, &KCallList[2]);
    meanwhile = [] { KCallLevel = 1; }; // a pass begins
    cancel();
    pthread_mutex_lock(&kcall_mutex);
    KCallRunPoller = [] { steps += "poll", ++polls; };
    KCallLevel = 0;
    pthread_mutex_unlock(&kcall_mutex);
    tick();
    EXPECT_EQ(steps, "(poll)call()call()");
    meanwhile = queue;
    cancel();
    EXPECT_EQ(KCallList[3].function, word(Empty));
}

TEST_F(Queue, DoesNothingAtATickWhileTheApplicationSetsTheLevel) {
    kcall_enqueue(word(note), 1, 0, 0);
    KCallLevel = 3;
    kcall_dequeue(word(note), 1, 0, 0);
    ticks->signal();
    EXPECT_TRUE(eventually([&] { return (thread_info(info.tid).signals("SigPnd")) == 0; }));
    pthread_mutex_lock(&kcall_mutex);
    EXPECT_EQ(polls, 0);
    KCallLevel = 0;
    pthread_mutex_unlock(&kcall_mutex);
    tick();
    EXPECT_THAT(ran, ElementsAre(1));
    zel_disable_posix_locks(); // which are not the queue's
    kcall_enqueue(word(note), 2, 0, 0);
    pthread_mutex_lock(&kcall_mutex);
    KCallRunPoller = nullptr;
    pthread_mutex_unlock(&kcall_mutex);
    ticks->signal();
    EXPECT_TRUE(eventually(ManualTick::idle));
    EXPECT_THAT(ran, ElementsAre(1, 2));
}

// Microseconds, what is exported, and what reaches the timer.
struct TickPeriod : testing::TestWithParam<std::tuple<uint32_t, uint32_t, long, long>> {};

TEST_P(TickPeriod, ReachesTheTimerOrIsReported) {
    const auto [us, exported_ns, seconds, nanoseconds] = GetParam();
    const std::string refusal = "zel_kernel_init: a tick period of " + std::to_string(us) +
                                " us is not between 1 and 4294967; there will be no tick\n";
    kernel_priorities.kcall_thread_priority = kcall_priority;
    std::atomic<bool> armed{false};
    itimerspec set{};
    interposed::timer_settime = [&](timer_t, int flags, const itimerspec* value, itimerspec*) {
        EXPECT_EQ(flags, 0);
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        EXPECT_EQ(sigismember(&blocked, SIGRTMIN), 1); // the first may come at once
        set = *value;
        armed = true;
        return 0;
    };
    EXPECT_EQ(printed_on(2, [period = us] { kcall_initialize_queue(nullptr, period); }),
              seconds + nanoseconds == 0 ? refusal : "");
    ASSERT_TRUE(eventually([&] { return armed.load(); }));
    EXPECT_EQ(KCall_nsTickPeriod, exported_ns);
    for (const timespec& part : {set.it_value, set.it_interval}) {
        EXPECT_EQ(part.tv_sec, seconds);
        EXPECT_EQ(part.tv_nsec, nanoseconds);
    }
    EXPECT_EQ(its.it_value.tv_nsec + its.it_interval.tv_nsec, 0);
}

INSTANTIATE_TEST_SUITE_P(Of, TickPeriod,
                         testing::Values(std::tuple{1000, 1'000'000, 0, 1'000'000},
                                         std::tuple{1'500'000, 1'500'000'000, 1, 500'000'000},
                                         std::tuple{4'294'967, 4'294'967'000, 4, 294'967'000},
                                         std::tuple{4'294'968, 704, 0, 0}, std::tuple{0, 0, 0, 0}));

TEST(KernelCallQueue, StopsTheProcessWhenItCannotBeMade) {
    kernel_priorities.kcall_thread_priority = 100;
    EXPECT_EXIT(kcall_initialize_queue(nullptr, 1000), testing::KilledBySignal(SIGABRT),
                prints_only("src/LinuxKcallQueue:145 Could not create KCALL thread\\.\n"));
    interposed::pthread_mutex_init = [](auto...) { return ENOMEM; };
    EXPECT_EXIT(kcall_initialize_queue(nullptr, 1000), testing::KilledBySignal(SIGABRT),
                prints_only("src/LinuxKcallQueue:132 Could not create KCALL mutex\\.\n"));
}

} // namespace
