// A C++ application, linked with the wrapping options against a shared and a static libstdc++, with
// and without libzelkernel-cxx: what becomes of the standard library's calls. Prints one fact a
// line, or what becomes of the one action that its argument names.
#include <zelkernel/conditions.h>
#include <zelkernel/kernel.h>
#include <zelkernel/locks.h>
#include <zelkernel/threads.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <exception>
#include <iterator>
#include <latch>
#include <locale>
#include <mutex>
#include <new>
#include <semaphore>
#include <shared_mutex>
#include <string_view>
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

int guards_outside_the_library(); // in cpp_wrapping_guards.cpp

namespace {

void fact(const char* what, const char* value) {
    std::printf("%s %s\n", what, value);
}

void fact(const char* what, bool value) {
    fact(what, value ? "yes" : "no");
}

bool same_processors_as(pthread_t other) {
    cpu_set_t own, others;
    return pthread_getaffinity_np(pthread_self(), sizeof own, &own) == 0 &&
           pthread_getaffinity_np(other, sizeof others, &others) == 0 && CPU_EQUAL(&own, &others);
}

bool only_on_processor_0() {
    cpu_set_t cpus;
    return pthread_getaffinity_np(pthread_self(), sizeof cpus, &cpus) == 0 &&
           CPU_COUNT(&cpus) == 1 && CPU_ISSET(0, &cpus);
}

std::size_t stack_of_caller() {
    pthread_attr_t attr;
    std::size_t size = 0;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        pthread_attr_getstacksize(&attr, &size);
        pthread_attr_destroy(&attr);
    }
    return size;
}

const pthread_t main_thread = pthread_self();

// Whose thread the caller is: the kernel's is in the registry and on processor 0; the system's is
// where its creator is. Either has its creator's policy and priority.
const char* kind_of_caller() {
    pthread_t ids[32];
    unsigned int count = 0;
    getCopyOfCurrentPthreadIds(ids, std::size(ids), &count);
    const bool registered = std::find(ids, ids + count, pthread_self()) != ids + count;
    int policy = SCHED_OTHER;
    sched_param param{};
    pthread_attr_t attr;
    std::size_t default_size = 0;
    pthread_getattr_default_np(&attr);
    pthread_attr_getstacksize(&attr, &default_size);
    // By the system's own number: no priorities are known here, so that none is shifted.
    if (pthread_getschedparam(pthread_self(), &policy, &param) != 0 || policy != SCHED_FIFO ||
        param.sched_priority != 1 ||
        !(registered ? only_on_processor_0() : same_processors_as(main_thread)))
        return "neither";
    const std::size_t size = stack_of_caller();
    if (size == 16'384)
        return registered ? "kernel's-16K" : "system's-16K";
    if (size == default_size)
        return registered ? "kernel's" : "system's";
    return "neither";
}

std::atomic<const char*> kind;

// Ends a thread that is still running by `call`. The object is never deleted: the destructor of a
// thread that can be neither joined nor detached terminates the process.
template<typename Thread>
bool throws(void (Thread::*call)()) {
    kind = nullptr;
    auto* thread = new Thread([] {
        kind = kind_of_caller();
        kind.notify_one();
        std::this_thread::sleep_for(20ms);
    });
    kind.wait(nullptr);
    try {
        (thread->*call)();
        return false;
    } catch (const std::system_error&) {
        return true;
    }
}

// As another thread finds it.
template<typename Mutex>
bool is_free(Mutex& mutex) {
    static std::atomic<int> taken;
    taken = -1;
    pthread_t id{};
    const auto routine = [](void* arg) -> void* {
        auto* shared = static_cast<Mutex*>(arg);
        const bool locked = shared->try_lock();
        if (locked)
            shared->unlock();
        taken = locked;
        taken.notify_one();
        return nullptr;
    };
    pthread_create(&id, nullptr, routine, &mutex);
    taken.wait(-1);
    return taken == 1;
}

// A wrapped call does nothing, and says that it has done it, while the locks are switched off.
template<typename Mutex>
bool is_redirected() {
    Mutex mutex;
    zel_disable_posix_locks();
    mutex.lock();
    const bool tried = mutex.try_lock();
    zel_enable_posix_locks();
    const bool not_locked = tried && is_free(mutex);
    mutex.lock();
    zel_disable_posix_locks();
    mutex.unlock();
    zel_enable_posix_locks();
    const bool not_unlocked = !is_free(mutex);
    mutex.unlock();
    return not_locked && not_unlocked && is_free(mutex);
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

// To another thread and back; without one of the notifications this does not end.
bool waits_are_notified() {
    static std::mutex mutex;
    static std::condition_variable there, back;
    static int turn = 0;
    pthread_t id{};
    const auto routine = [](void*) -> void* {
        std::unique_lock lock(mutex);
        turn = 1;
        back.notify_all();
        there.wait(lock, [] { return turn == 2; });
        turn = 3;
        back.notify_one();
        return nullptr;
    };
    std::unique_lock lock(mutex);
    pthread_create(&id, nullptr, routine, nullptr);
    back.wait(lock, [] { return turn == 1; });
    turn = 2;
    there.notify_one();
    back.wait(lock, [] { return turn == 3; });
    return true;
}

// What takes nothing of what is redirected; if one did not do its part, this would not end.
bool others_are_right() {
    static std::latch latch{2};
    static std::barrier barrier{2};
    static std::shared_mutex shared;
    static std::once_flag once;
    static std::atomic<int> calls, ended;
    struct Local {
        ~Local() {
            ++ended;
            ended.notify_one();
        }
    };
    const auto routine = [](void* arg) -> void* {
        const thread_local Local local;
        static_cast<void>(local);
        std::call_once(once, [] { ++calls; });
        std::shared_lock lock(shared);
        latch.arrive_and_wait();
        barrier.arrive_and_wait();
        return arg;
    };
    pthread_t id{};
    pthread_create(&id, nullptr, routine, nullptr);
    routine(nullptr);
    ended.wait(0);
    return calls == 1 && std::unique_lock{shared, std::try_to_lock};
}

std::chrono::nanoseconds kernel_time() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::chrono::seconds{now.tv_sec} + std::chrono::nanoseconds{now.tv_nsec};
}

const char* start_of_steady_clock() {
    const auto before = kernel_time();
    const auto now = steady_clock::now().time_since_epoch();
    const auto after = kernel_time();
    const std::chrono::nanoseconds start{starttimeInNs};
    if (before <= now && now <= after)
        return "kernel-start";
    return before + start <= now && now <= after + start ? "boot" : "neither";
}

// Read by the C library itself, whose own call nothing redirects.
system_clock::duration system_time() {
    timespec now{};
    static_cast<void>(std::timespec_get(&now, TIME_UTC));
    return std::chrono::seconds{now.tv_sec} + std::chrono::nanoseconds{now.tv_nsec};
}

bool system_clock_is_right() {
    const auto before = system_time();
    const auto now = system_clock::now().time_since_epoch();
    return before <= now && now <= system_time();
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
template<typename Condition>
bool a_wait_on_the_system_clock_leaves_an_entry(std::unique_lock<std::mutex>& lock) {
    alignas(Condition) unsigned char place[sizeof(Condition)];
    auto* standard = new (place) Condition;
    standard->wait_until(lock, system_clock::now());
    standard->~Condition();
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

// Of what may end the process, and therefore gets one to itself.
const char* outcome_of(std::string_view action) {
    const auto routine = [] { std::this_thread::sleep_for(20ms); };
    if (action == "jthread-destructor") {
        const std::jthread thread([&](std::stop_token stop) {
            while (!stop.stop_requested())
                routine();
        });
    } else if (action == "destructor-after-join") {
        std::thread thread(routine);
        try {
            thread.join();
        } catch (const std::system_error&) {
            return "throws"; // by way of the destructor
        }
    } else {
#ifdef HAS_FUTURES
        return std::async(std::launch::async, kind_of_caller).get();
#endif
    }
    return "returns";
}

} // namespace

int main(int argc, const char* const* argv) {
    // As after start-up, but for the kernel's own threads: a creator under SCHED_FIFO, without
    // which a thread without attributes is refused, and an application's clock that starts now.
    const sched_param lowest{.sched_priority = 1};
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &lowest);
    starttimeInNs = std::chrono::floor<std::chrono::seconds>(kernel_time()) / 1ns;

    if (argc > 1) {
        std::puts(outcome_of(argv[1]));
        return 0;
    }
    fact("join-throws", throws(&std::thread::join));
    fact("detach-throws", throws(&std::thread::detach));
    fact("thread", kind);
    fact("jthread-join-throws", throws(&std::jthread::join));
    fact("jthread-detach-throws", throws(&std::jthread::detach));
    fact("jthread", kind);

    fact("mutex-redirected", is_redirected<std::mutex>());
    fact("recursive-mutex-redirected", is_redirected<std::recursive_mutex>());
    fact("static-guarded-by-library", static_objects_are_guarded_by_the_library());
    const int guards = guards_outside_the_library();
    std::locale::global(std::locale::classic()); // has a mutex that is a local static object
    fact("libstdc++-static-guarded-by-library", guards_outside_the_library() == guards);

    fact("steady-clock-from", start_of_steady_clock());
    fact("system-clock-right", system_clock_is_right());
    fact("waits-are-notified", waits_are_notified());
    fact("others-right", others_are_right());
    std::condition_variable condition;
    std::mutex mutex;
    std::unique_lock lock(mutex);
    fact("wait-for-waits", takes_30_ms([&] { condition.wait_for(lock, 30ms); }));
    fact("wait-until-steady-clock-waits",
         takes_30_ms([&] { condition.wait_until(lock, steady_clock::now() + 30ms); }));
    std::timed_mutex timed;
    timed.lock();
    fact("try-lock-for-waits", takes_30_ms([&] { static_cast<void>(timed.try_lock_for(30ms)); }));
    std::shared_timed_mutex shared;
    shared.lock_shared();
    fact("shared-try-lock-for-waits",
         takes_30_ms([&] { static_cast<void>(shared.try_lock_for(30ms)); }));
    std::condition_variable_any any;
    fact("any-wait-for-waits", takes_30_ms([&] { any.wait_for(lock, 30ms); }));
    std::counting_semaphore<1> none{0};
    fact("semaphore-waits", takes_30_ms([&] { static_cast<void>(none.try_acquire_for(30ms)); }));
    fact("wait-until-system-clock-waits",
         takes_30_ms([&] { condition.wait_until(lock, system_clock::now() + 30ms); }));
    struct Derived : std::condition_variable {}; // ends by another entry point
    fact("wait-until-system-clock-leaves-entry",
         a_wait_on_the_system_clock_leaves_an_entry<std::condition_variable>(lock));
    fact("derived-leaves-entry", a_wait_on_the_system_clock_leaves_an_entry<Derived>(lock));
    fact("sleep-for-sleeps", takes_30_ms([] { std::this_thread::sleep_for(30ms); }));
    fact("sleep-until-sleeps",
         takes_30_ms([] { std::this_thread::sleep_until(steady_clock::now() + 30ms); }));

#ifdef HAS_FUTURES
    std::promise<int> never;
    fact("future-waits", takes_30_ms([&] { never.get_future().wait_for(30ms); }));
#endif
}
