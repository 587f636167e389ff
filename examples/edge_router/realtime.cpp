#include "realtime.hpp"

#include "app_threads.hpp"
#include "lateness.hpp"
#include "priorities.hpp"

#include <array>
#include <atomic>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <pthread.h>
#include <semaphore.h>
#include <time.h>
#include <unistd.h>
#include <zelkernel/deferred_service.hpp>
#include <zelkernel/interrupt_manager.hpp>
#include <zelkernel/kcall.h>
#include <zelkernel/kernel.h>
#include <zelkernel/simulated_platform.h>

namespace {

using Count = std::atomic<std::uint32_t>;

std::atomic<bool> stopping{false};
Count still_running{0}; // threads of this file that have not seen `stopping` yet

// --- Tick ---

struct Tick {
    Lateness lateness{"tick to poller"};
    Count polls{0};
    Count merged{0}; // ticks that passed while the kernel-call thread was busy
};

// --- Kernel calls ---

// A thread that queues a kernel call every few milliseconds and never has more than `most_pending`
// of them pending: a full queue would drop them.
struct Caller {
    static constexpr unsigned most_pending = 100;
    static constexpr unsigned period_us = 5000;

    sem_t room;
    Count queued{0};
    Count run{0};
    Count out_of_order{0};
    Count outside_kernel{0};
};

// Runs in the kernel-call thread.
void kernel_call(zel_word_t caller_word, zel_word_t sequence, zel_word_t) {
    auto& caller = *reinterpret_cast<Caller*>(caller_word);
    caller.out_of_order += sequence != caller.run;
    caller.outside_kernel += zel_get_current_context() != 1;
    ++caller.run;
    sem_post(&caller.room);
}

void* call_the_kernel(void* argument) {
    auto& caller = *static_cast<Caller*>(argument);
    while (!stopping) {
        sem_wait(&caller.room);
        const std::uint32_t sequence = caller.queued++;
        kcall_enqueue(reinterpret_cast<zel_word_t>(&kernel_call),
                      reinterpret_cast<zel_word_t>(&caller), sequence, 0);
        usleep(Caller::period_us);
    }
    --still_running;
    return nullptr;
}

// --- Interrupts ---

// A device that interrupts once a millisecond, and its driver: a service routine, which runs in the
// interrupt thread, and a deferred routine, which runs in the kernel-call thread. Interrupts are
// served in the order in which they were raised, so the n-th service is that of the n-th interrupt.
struct Device {
    static constexpr int vector = 7;
    static constexpr std::uint32_t most_pending = 256;

    struct ServiceRoutine final : Drivers::Api::InterruptProcessing::InterruptServiceRoutine {
        void isr() override;
    } service_routine;
    struct DeferredRoutine final : Drivers::Api::InterruptProcessing::DeferredServiceRoutine {
        void dsr() override;
    } deferred_routine;

    Lateness to_service{"interrupt to service routine"};
    Lateness to_deferred{"service routine to deferred routine, which runs at the next tick"};
    std::array<std::int64_t, most_pending> raised_at{};
    std::array<std::int64_t, most_pending> deferred_at{};
    Count raised{0};
    Count refused{0};
    Count served{0};
    Count deferred_run{0};
    Count outside_kernel{0};
};

// One object, made before any thread and never destroyed: the process ends with them running.
struct State {
    Tick tick;
    std::array<Caller, 3> callers;
    Device device;
};
State& state = *new State;

void Device::ServiceRoutine::isr() {
    Device& device = state.device;
    const std::uint32_t slot = device.served % Device::most_pending;
    const std::int64_t now = now_ns();
    device.to_service.record(now - device.raised_at[slot]);
    device.deferred_at[slot] = now;
    ++device.served;
    Drivers::Devices::InterruptProcessing::LinuxDeferredServiceController::getInstance()->defer(
        &device.deferred_routine);
}

void Device::DeferredRoutine::dsr() {
    Device& device = state.device;
    const std::uint32_t slot = device.deferred_run % Device::most_pending;
    device.to_deferred.record(now_ns() - device.deferred_at[slot]);
    device.outside_kernel += zel_get_current_context() != 1;
    ++device.deferred_run;
}

// Waits on a condition that nobody signals: with CLOCK_MONOTONIC chosen, its deadlines are in the
// application's monotonic time, the same that clock_gettime gives.
class Metronome {
public:
    Metronome() {
        pthread_condattr_t attributes;
        pthread_condattr_init(&attributes);
        pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
        pthread_cond_init(&never_, &attributes);
        pthread_condattr_destroy(&attributes);
        pthread_mutex_init(&mutex_, nullptr);
        clock_gettime(CLOCK_MONOTONIC, &next_);
    }
    void wait(long period_ns) {
        next_.tv_nsec += period_ns;
        if (next_.tv_nsec >= 1'000'000'000) {
            next_.tv_nsec -= 1'000'000'000;
            ++next_.tv_sec;
        }
        pthread_mutex_lock(&mutex_);
        while (pthread_cond_timedwait(&never_, &mutex_, &next_) == 0) {
        }
        pthread_mutex_unlock(&mutex_);
    }

private:
    pthread_cond_t never_;
    pthread_mutex_t mutex_;
    timespec next_{};
};

void* interrupt_every_millisecond(void*) {
    Device& device = state.device;
    Metronome metronome;
    while (!stopping) {
        metronome.wait(1'000'000);
        if (device.raised - device.deferred_run == Device::most_pending) {
            continue; // the device's own buffers are full: on a stalled machine it waits
        }
        device.raised_at[device.raised % Device::most_pending] = now_ns();
        ++device.raised;
        device.refused += zel_simulated_raise(Device::vector) != 0;
    }
    --still_running;
    return nullptr;
}

void set_up_driver() {
    // The manager's state is class-wide: the first construction starts the interrupt thread.
    Linux::LinuxInterruptMgr manager;
    Linux::LinuxInterruptSource* source = manager.get(Device::vector);
    source->connect(&state.device.service_routine);
    source->enable();
}

// --- Results ---

template<typename Done>
void wait_until(Done done) {
    for (int attempt = 0; attempt < 1000 && !done(); ++attempt) {
        usleep(10'000);
    }
}

void check_kernel_calls(Checks& checks) {
    std::uint32_t queued = 0, run = 0, out_of_order = 0, outside = 0;
    for (const Caller& caller : state.callers) {
        queued += caller.queued;
        run += caller.run;
        out_of_order += caller.out_of_order;
        outside += caller.outside_kernel;
    }
    checks.expect(queued > 0 && run == queued && out_of_order == 0 && outside == 0,
                  text("kernel calls: %" PRIu32 " queued by %zu threads, %" PRIu32 " lost, %" PRIu32
                       " out of order, %" PRIu32 " outside the kernel context",
                       queued, state.callers.size(), queued - run, out_of_order, outside));
}

void check_device(Checks& checks) {
    const Device& device = state.device;
    const std::uint32_t raised = device.raised, served = device.served;
    checks.expect(
        raised > 0 && served == raised && device.refused == 0,
        text("interrupts: %" PRIu32 " raised, %" PRIu32 " lost", raised, raised - served));
    checks.expect(served > 0 && device.deferred_run == served && device.outside_kernel == 0,
                  text("deferred routines: %" PRIu32 " deferred, %" PRIu32 " lost, %" PRIu32
                       " outside the kernel context",
                       served, served - device.deferred_run, device.outside_kernel.load()));
}

} // namespace

// Runs with the kernel's queue locked: it must not queue a call. The library's timer tells how long
// ago it fired, and how often in vain.
void on_tick() {
    itimerspec left{};
    timer_gettime(timer_id, &left);
    const int merged = timer_getoverrun(timer_id);
    const std::int64_t period = KCall_nsTickPeriod;
    state.tick.lateness.record((merged + 1) * period - left.it_value.tv_nsec);
    state.tick.merged += static_cast<std::uint32_t>(merged);
    ++state.tick.polls;
}

void start_realtime() {
    set_up_driver();
    still_running = 1 + static_cast<std::uint32_t>(state.callers.size());
    int number = 0;
    for (Caller& caller : state.callers) {
        sem_init(&caller.room, 0, Caller::most_pending);
        start_app_thread(text("caller %d", ++number).c_str(), priority::caller, call_the_kernel,
                         &caller);
    }
    start_app_thread("device", priority::device, interrupt_every_millisecond, nullptr);
}

void finish_realtime(Checks& checks) {
    stopping = true;
    wait_until([] { return still_running == 0; });
    wait_until([] {
        bool done = state.device.deferred_run == state.device.raised;
        for (const Caller& caller : state.callers) {
            done = done && caller.run == caller.queued;
        }
        return done;
    });

    const Tick& tick = state.tick;
    std::printf("\nLateness (on a machine that does other things too; not judged)\n");
    tick.lateness.print();
    state.device.to_service.print();
    state.device.to_deferred.print();
    checks.expect(tick.polls > 0, text("tick: the poller ran %" PRIu32 " times, %" PRIu32
                                       " ticks passed while it was busy (not judged)",
                                       tick.polls.load(), tick.merged.load()));
    check_kernel_calls(checks);
    check_device(checks);
}
