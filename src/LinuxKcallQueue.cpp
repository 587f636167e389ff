// The kernel-call queue and its thread.
//
// kcall_mutex guards the ring, KCallLevel and KCallRunPoller. Threads: any caller of kcall_enqueue
// and kcall_dequeue, and the kernel-call thread, which holds the lock while the poller runs and
// releases it around each queued call. The system's lock calls are used throughout: the posix locks
// switch must not open the queue to races with its own thread.
#include "ErrorLine.hpp"
#include "FifoAttributes.hpp"
#include "KernelState.hpp"
#include "Probes.hpp"
#include "Statistics.hpp"
#include "TracedLock.hpp"
#include "Uptime.hpp"

#include <zelkernel/affinity.h>
#include <zelkernel/kcall.h>
#include <zelkernel/locks.h>
#include <zelkernel/scheduling.h>
#include <zelkernel/threads.h>

#include <algorithm>
#include <csignal>
#include <limits>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
KernelCall KCallList[ZEL_KCALL_ENTRIES];
KernelCall* KCallIn;
KernelCall* KCallOut;
uint8_t KCallLevel;
zel_run_poller_func KCallRunPoller;
uint32_t KCall_nsTickPeriod;
pthread_mutex_t kcall_mutex;
timer_t timer_id;
sigevent sev;
sigset_t mask;
itimerspec its;
}

static_assert(sizeof(KernelCall) == 4 * sizeof(void*));
#if UINTPTR_MAX == 0xffffffffu
static_assert(sizeof(KernelCall) == 16 && sizeof(KCallList) == 16384);
#endif

namespace {

constexpr const char* module_file = "src/LinuxKcallQueue";

using KernelCallFunction = void (*)(zel_word_t, zel_word_t, zel_word_t);

pthread_t kcall_thread;

// The period in nanoseconds; all zero leaves the timer unarmed.
timespec tick_period;

class QueueLock {
public:
    QueueLock() { zel::lock(&kcall_mutex); }
    ~QueueLock() { pthread_mutex_unlock(&kcall_mutex); }
    QueueLock(const QueueLock&) = delete;
    QueueLock& operator=(const QueueLock&) = delete;
};

// Lets go of a held QueueLock for its scope.
class QueueUnlock {
public:
    QueueUnlock() { pthread_mutex_unlock(&kcall_mutex); }
    ~QueueUnlock() { zel::lock(&kcall_mutex); }
    QueueUnlock(const QueueUnlock&) = delete;
    QueueUnlock& operator=(const QueueUnlock&) = delete;
};

KernelCall* next(KernelCall* entry) {
    return entry == &KCallList[ZEL_KCALL_ENTRIES - 1] ? KCallList : entry + 1;
}

bool is_call(const KernelCall& entry, const KernelCall& call) {
    return entry.function == call.function && entry.arguments[0] == call.arguments[0] &&
           entry.arguments[1] == call.arguments[1] && entry.arguments[2] == call.arguments[2];
}

// KCall_nsTickPeriod has 32 bits; a period that does not fit there is refused, so that what the
// application reads is what the timer does.
timespec period_of(uint32_t tick_period_us) {
    constexpr uint32_t longest = std::numeric_limits<uint32_t>::max() / 1000;
    if (tick_period_us == 0 || tick_period_us > longest) {
        zel::write_error_line({"zel_kernel_init: a tick period of ", zel::Decimal{tick_period_us},
                               " us is not between 1 and ", zel::Decimal{longest},
                               "; there will be no tick\n"});
        return {};
    }
    return {static_cast<time_t>(tick_period_us / 1'000'000),
            static_cast<long>(tick_period_us % 1'000'000) * 1000};
}

void block_tick_signal() {
    sigemptyset(&mask);
    sigaddset(&mask, SIGRTMIN);
    sigprocmask(SIG_BLOCK, &mask, nullptr); // of this thread alone, on Linux
}

// Failures are not examined: without a timer there is no tick.
void start_tick() {
    sev.sigev_notify = SIGEV_THREAD_ID;
    sev.sigev_signo = SIGRTMIN;
    sev.sigev_value.sival_ptr = &timer_id;
    sev._sigev_un._tid = static_cast<pid_t>(syscall(SYS_gettid));
    if (timer_create(CLOCK_MONOTONIC, &sev, &timer_id) != 0)
        return;
    const itimerspec period{tick_period, tick_period};
    timer_settime(timer_id, 0, &period, nullptr);
}

// What has passed of the period that runs now: the timer's own view, free of drift.
void measure_lateness() {
    itimerspec left{};
    if (timer_gettime(timer_id, &left) != 0)
        return;
    const int64_t late = (tick_period.tv_sec - left.it_value.tv_sec) * zel::nanoseconds_per_second +
                         tick_period.tv_nsec - left.it_value.tv_nsec;
    zel::count_tick_lateness(static_cast<uint32_t>(std::max<int64_t>(0, late)));
    zel::count(zel::statistics->ticks_missed,
               static_cast<uint32_t>(std::max(0, timer_getoverrun(timer_id))));
}

// One sigwait stands for however many periods have passed.
void wait_for_tick() {
    int signal = 0;
    while (sigwait(&mask, &signal) != 0) {
    }
    ZEL_PROBE(tick);
    zel::count(zel::statistics->ticks);
    if (zel::statistics_are_published())
        measure_lateness();
}

void run_call(const KernelCall& call) {
    const QueueUnlock unlocked;
    ZEL_PROBE(call_begin, call.function, call.arguments[0]);
    reinterpret_cast<KernelCallFunction>(call.function)(call.arguments[0], call.arguments[1],
                                                        call.arguments[2]);
    ZEL_PROBE(call_end);
}

void count_pending_calls() {
    const auto pending = static_cast<uint32_t>(KCallIn - KCallOut) % ZEL_KCALL_ENTRIES;
    zel::statistics->calls_last_pass = pending;
    zel::statistics->calls_high_water = std::max(zel::statistics->calls_high_water, pending);
}

// The entry stays in the ring while its call runs, so that it counts as pending until it is done.
// Within the thread's one large function the loop would be short of registers: 3 % a call.
[[gnu::noinline]] void run_pending_calls() {
    ++KCallLevel;
    count_pending_calls();
    uint32_t calls = 0;
    KernelCall* entry = KCallOut;
    do {
        entry = next(entry);
        run_call(*entry);
        KCallOut = entry;
        ++calls;
    } while (KCallIn != entry);
    zel::count(zel::statistics->calls_run, calls);
    --KCallLevel;
}

void run_tick() {
    const QueueLock lock;
    if (KCallLevel != 0)
        return;
    if (KCallRunPoller != nullptr) {
        ZEL_PROBE(poller_begin);
        KCallRunPoller();
        ZEL_PROBE(poller_end);
    }
    if (KCallIn != KCallOut)
        run_pending_calls();
}

void* kcall_thread_body(void*) {
    process();
}

pthread_t start_thread() {
    zel::FifoAttributes attributes{zel::linux_priority(kernel_priorities.kcall_thread_priority)};
    pthread_t thread{};
    if (__zel_pure_pthread_create(&thread, attributes.get(), kcall_thread_body, nullptr) != 0)
        zel_fatal("Could not create KCALL thread.", module_file, 145);
    return thread;
}

} // namespace

pthread_t kcall_initialize_queue(zel_run_poller_func run_poller, uint32_t tick_period_us) {
    KCallIn = KCallOut = KCallList;
    KCallLevel = 0;
    KCallRunPoller = run_poller;
    KCall_nsTickPeriod = tick_period_us * 1000u;
    tick_period = period_of(tick_period_us);
    zel::statistics->tick_period_ns = KCall_nsTickPeriod;
    if (__wrap_pthread_mutex_init(&kcall_mutex, nullptr) != 0)
        zel_fatal("Could not create KCALL mutex.", module_file, 132);
    kcall_thread = start_thread();
    return kcall_thread;
}

int kcall_enqueue(zel_word_t function, zel_word_t a1, zel_word_t a2, zel_word_t a3) {
    const QueueLock lock;
    KernelCall* const entry = next(KCallIn);
    if (entry == KCallOut) {
        zel::count(zel::statistics->calls_dropped);
        return 0;
    }
    *entry = {function, {a1, a2, a3}};
    KCallIn = entry;
    return 0;
}

int kcall_dequeue(zel_word_t function, zel_word_t a1, zel_word_t a2, zel_word_t a3) {
    const KernelCall call{function, {a1, a2, a3}};
    const QueueLock lock;
    if (KCallLevel != 0)
        return 0;
    for (KernelCall* entry = KCallOut; entry != KCallIn;) {
        entry = next(entry);
        if (is_call(*entry, call))
            entry->function = reinterpret_cast<zel_word_t>(&Empty);
    }
    return 0;
}

// The tick signal's default action ends the process: it is blocked before the timer can fire.
void process() {
    zel::kcall_thread_id = pthread_self();
    setThreadAffinityAllCpus();
    __wrap_pthread_setname_np(pthread_self(), "KCall");
    block_tick_signal();
    start_tick();
    for (;;) {
        wait_for_tick();
        run_tick();
    }
}

void Empty(zel_word_t, zel_word_t, zel_word_t) {}
