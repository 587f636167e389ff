// A C++ application, linked with the wrapping options against a shared and a static libstdc++, with
// and without libzelkernel-cxx: what becomes of the standard library's calls. Prints one fact a
// line.
#include <zelkernel/conditions.h>
#include <zelkernel/kernel.h>
#include <zelkernel/locks.h>
#include <zelkernel/threads.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <exception>
#include <iterator>
#include <mutex>
#include <new>
#include <semaphore>
#include <system_error>
#include <thread>

// Debian's libstdc++ for armel is made for processors without atomic words, and lacks what objects
// compiled for a newer one need for a future.
#if !defined(__arm__) || defined(__ARM_PCS_VFP)
#define HAS_FUTURES
#include <future>
#endif

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using std::chrono::system_clock;

namespace {

void fact(const char* what, bool value) {
    std::printf("%s %s\n", what, value ? "yes" : "no");
}

// Whether the calling thread is one of the kernel's: in the registry, FIFO at its creator's
// priority, on processor 0.
bool caller_is_of_the_kernel() {
    pthread_t ids[8];
    unsigned int count = 0;
    getCopyOfCurrentPthreadIds(ids, std::size(ids), &count);
    int policy = SCHED_OTHER;
    sched_param param{};
    cpu_set_t cpus;
    static_cast<void>(pthread_getaffinity_np(pthread_self(), sizeof cpus, &cpus));
    // By the system's own number: no priorities are known here, so that none is shifted.
    return std::find(ids, ids + count, pthread_self()) != ids + count &&
           pthread_getschedparam(pthread_self(), &policy, &param) == 0 && policy == SCHED_FIFO &&
           param.sched_priority == 1 && CPU_COUNT(&cpus) == 1 && CPU_ISSET(0, &cpus);
}

std::atomic<int> of_the_kernel;

// Ends a thread that is still running by `call`. The object is never deleted: the destructor of a
// thread that can be neither joined nor detached terminates the process.
template<typename Thread>
bool throws(void (Thread::*call)()) {
    of_the_kernel = -1;
    auto* thread = new Thread([] {
        of_the_kernel = caller_is_of_the_kernel();
        of_the_kernel.notify_one();
        std::this_thread::sleep_for(20ms);
    });
    of_the_kernel.wait(-1);
    try {
        (thread->*call)();
        return false;
    } catch (const std::system_error&) {
        return true;
    }
}

// A little less counts, too: the clocks are not the same.
bool takes_30_ms(auto&& wait) {
    const auto start = steady_clock::now();
    wait();
    return steady_clock::now() - start >= 29ms;
}

// A guard of libstdc++ refuses to be entered a second time.
int recursive_static(int depth) {
    static const int value = depth == 0 ? 0 : recursive_static(depth - 1);
    return value;
}

bool static_objects_are_guarded_by_the_library() {
    try {
        return recursive_static(1) == 0;
    } catch (const std::exception&) {
        return false;
    }
}

// Whether the library still takes the clock of a condition variable that is gone for that of the
// next one at its address.
bool a_wait_on_the_system_clock_leaves_an_entry(std::unique_lock<std::mutex>& lock) {
    alignas(std::condition_variable) unsigned char place[sizeof(std::condition_variable)];
    auto* standard = new (place) std::condition_variable;
    standard->wait_until(lock, system_clock::now());
    standard->~condition_variable();
    auto* next = reinterpret_cast<pthread_cond_t*>(place);
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(next, &attr);
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_nsec += 30'000'000;
    deadline.tv_sec += deadline.tv_nsec / 1'000'000'000;
    deadline.tv_nsec %= 1'000'000'000;
    const bool waited = takes_30_ms(
        [&] { pthread_cond_timedwait(next, lock.mutex()->native_handle(), &deadline); });
    pthread_cond_destroy(next);
    return !waited;
}

} // namespace

int main() {
    // As after start-up, but for the kernel's own threads: a creator under SCHED_FIFO, without
    // which a thread without attributes is refused, and an application's clock that starts now.
    const sched_param lowest{.sched_priority = 1};
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &lowest);
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    starttimeInNs = std::int64_t{now.tv_sec} * 1'000'000'000;

    fact("join-throws", throws(&std::thread::join));
    fact("detach-throws", throws(&std::thread::detach));
    fact("thread-of-kernel", of_the_kernel != 0);
    fact("jthread-join-throws", throws(&std::jthread::join));
    fact("jthread-of-kernel", of_the_kernel != 0);

    std::mutex mutex;
    zel_disable_posix_locks(); // a wrapped lock does nothing now
    mutex.lock();
    zel_enable_posix_locks();
    fact("mutex-wrapped", mutex.try_lock());
    fact("static-guard-wrapped", static_objects_are_guarded_by_the_library());

    fact("steady-clock-wrapped", steady_clock::now().time_since_epoch() < 3s);
    std::condition_variable condition;
    std::unique_lock lock(mutex, std::adopt_lock);
    fact("wait-for-waits", takes_30_ms([&] { condition.wait_for(lock, 30ms); }));
    std::timed_mutex timed;
    timed.lock();
    fact("try-lock-for-waits", takes_30_ms([&] { static_cast<void>(timed.try_lock_for(30ms)); }));
    std::counting_semaphore<1> none{0};
    fact("semaphore-waits", takes_30_ms([&] { static_cast<void>(none.try_acquire_for(30ms)); }));
    fact("wait-until-system-clock-waits",
         takes_30_ms([&] { condition.wait_until(lock, system_clock::now() + 30ms); }));
    fact("wait-until-system-clock-leaves-entry", a_wait_on_the_system_clock_leaves_an_entry(lock));
    fact("sleep-until-sleeps",
         takes_30_ms([] { std::this_thread::sleep_until(steady_clock::now() + 30ms); }));

#ifdef HAS_FUTURES
    std::promise<int> never;
    fact("future-waits", takes_30_ms([&] { never.get_future().wait_for(30ms); }));
    // Last: where its thread cannot be joined, the end of the future ends the process.
    std::fflush(stdout);
    fact("async-of-kernel", std::async(std::launch::async, caller_is_of_the_kernel).get());
#endif
}
