#include "soak_thread_load.hpp"

#include "app_threads.hpp"
#include "checks.hpp"
#include "priorities.hpp"
#include "soak_watch.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>
#include <zelkernel/kcall.h>
#include <zelkernel/threads.h>

namespace soak {

namespace {

constexpr std::size_t most_at_a_time = 64;

std::atomic<bool> working{false};
std::atomic<std::uint32_t> created{0};
std::atomic<std::uint32_t> called{0}; // by kernel calls, in the kernel-call thread
sem_t never;

void count_call(zel_word_t, zel_word_t, zel_word_t) {
    ++called;
}

void call_the_kernel() {
    kcall_enqueue(reinterpret_cast<zel_word_t>(&count_call), 0, 0, 0);
}

void* return_at_once(void*) {
    call_the_kernel();
    return nullptr;
}

void* exit_early(void*) {
    call_the_kernel();
    pthread_exit(nullptr);
}

void* wait_for_cancellation(void*) {
    call_the_kernel();
    for (;;) {
        sem_wait(&never);
    }
}

void create(std::uint32_t number) {
    constexpr std::array<void* (*)(void*), 3> routines{return_at_once, exit_early,
                                                       wait_for_cancellation};
    void* (*const routine)(void*) = routines[number % routines.size()];
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setschedpolicy(&attributes, SCHED_FIFO);
    // Below, at and above the creator's.
    const sched_param parameters{.sched_priority =
                                     priority::client - 1 + static_cast<int>(number / 3 % 3)};
    pthread_attr_setschedparam(&attributes, &parameters);
    pthread_t thread;
    if (const int error = pthread_create(&thread, &attributes, routine, nullptr)) {
        fault(text("a thread was refused with error %d", error));
    } else {
        ++created;
        ++figures.threads;
        if (routine == wait_for_cancellation) {
            pthread_cancel(thread);
        }
    }
    pthread_attr_destroy(&attributes);
}

// Beside the few that stay there are never more than those not yet over.
void check_registry(std::uint32_t staying) {
    std::array<pthread_t, 2 * most_at_a_time> ids;
    unsigned count = 0;
    getCopyOfCurrentPthreadIds(ids.data(), ids.size(), &count);
    if (std::adjacent_find(ids.begin(), ids.begin() + count, std::greater_equal<>{}) !=
        ids.begin() + count) {
        fault("the registry of threads is out of order");
    }
    if (count > staying + most_at_a_time) {
        fault(text("the registry holds %u threads", count));
    }
}

void* create_threads(void*) {
    constexpr std::uint32_t staying = 32;
    for (std::uint32_t number = 0; !stopping(); ++number) {
        create(number);
        if (number % 16 == 0) {
            check_registry(staying);
        }
        while (created - called > most_at_a_time / 2) {
            usleep(1000);
        }
        usleep(2000);
    }
    working = false;
    return nullptr;
}

} // namespace

void start_thread_load() {
    sem_init(&never, 0, 0);
    working = true;
    start_app_thread("threads", priority::client, create_threads, nullptr);
}

bool thread_load_ended() {
    return !working && called == created;
}

} // namespace soak
