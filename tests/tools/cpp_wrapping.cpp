// A C++ application, linked with the wrapping options against a shared and a static libstdc++:
// which of the standard library's calls arrive in libzelkernel. Prints one fact a line.
#include <zelkernel/kernel.h>
#include <zelkernel/locks.h>
#include <zelkernel/threads.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <mutex>
#include <system_error>
#include <thread>

using namespace std::chrono_literals;
using std::chrono::steady_clock;

namespace {

void fact(const char* what, bool value) {
    std::printf("%s %s\n", what, value ? "yes" : "no");
}

bool caller_is_registered() {
    pthread_t ids[8];
    unsigned int count = 0;
    getCopyOfCurrentPthreadIds(ids, std::size(ids), &count);
    return std::find(ids, ids + count, pthread_self()) != ids + count;
}

std::atomic<int> registered;

// Ends a thread that is still running by `call`. The object is never deleted: the destructor of a
// thread that can be neither joined nor detached terminates the process.
bool throws(void (std::thread::*call)()) {
    registered = -1;
    auto* thread = new std::thread([] {
        registered = caller_is_registered();
        registered.notify_one();
        std::this_thread::sleep_for(20ms);
    });
    registered.wait(-1);
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
    fact("thread-wrapped", registered != 0);

    std::mutex mutex;
    zel_disable_posix_locks(); // a wrapped lock does nothing now
    mutex.lock();
    zel_enable_posix_locks();
    fact("mutex-wrapped", mutex.try_lock());

    fact("steady-clock-wrapped", steady_clock::now().time_since_epoch() < 3s);
    std::condition_variable condition;
    std::unique_lock lock(mutex, std::adopt_lock);
    fact("wait-for-waits", takes_30_ms([&] { condition.wait_for(lock, 30ms); }));
    fact("wait-until-system-clock-waits",
         takes_30_ms([&] { condition.wait_until(lock, std::chrono::system_clock::now() + 30ms); }));
    fact("sleep-until-sleeps",
         takes_30_ms([] { std::this_thread::sleep_until(steady_clock::now() + 30ms); }));
}
