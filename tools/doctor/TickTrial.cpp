#include "TickTrial.hpp"

#include <csignal>
#include <ctime>
#include <sched.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

// glibc gained the name later than the field.
#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid
#endif

namespace zel::doctor {
namespace {

constexpr std::int64_t period_ns = 1'000'000;
constexpr unsigned ticks = 1000;

std::int64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

class TickTimer {
public:
    explicit TickTimer(int signal) {
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = signal;
        event.sigev_notify_thread_id = static_cast<pid_t>(syscall(SYS_gettid));
        made_ = timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0;
    }
    ~TickTimer() {
        if (made_)
            timer_delete(timer_);
    }
    TickTimer(const TickTimer&) = delete;
    TickTimer& operator=(const TickTimer&) = delete;

    bool start() const {
        constexpr timespec period{.tv_sec = 0, .tv_nsec = period_ns};
        const itimerspec schedule{.it_interval = period, .it_value = period};
        return made_ && timer_settime(timer_, 0, &schedule, nullptr) == 0;
    }
    unsigned overruns() const { return static_cast<unsigned>(timer_getoverrun(timer_)); }

private:
    timer_t timer_{};
    bool made_ = false;
};

void tick(TickTrial& trial, int fifo_priority) {
    sigset_t tick_signal;
    sigemptyset(&tick_signal);
    sigaddset(&tick_signal, SIGRTMIN);
    pthread_sigmask(SIG_BLOCK, &tick_signal, nullptr);
    const sched_param param{.sched_priority = fifo_priority};
    trial.real_time = pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0;

    const TickTimer timer(SIGRTMIN);
    std::int64_t due = now_ns();
    if (!timer.start())
        return;
    trial.lateness_us.reserve(ticks);
    for (unsigned passed = 0; passed < ticks; ++passed) {
        int signal = 0;
        sigwait(&tick_signal, &signal);
        const std::int64_t now = now_ns();
        const unsigned lost = timer.overruns();
        trial.lost += lost;
        passed += lost;
        due += period_ns * (1 + std::int64_t{lost});
        trial.lateness_us.push_back(static_cast<std::int32_t>((now - due) / 1000));
    }
}

} // namespace

TickTrial run_tick_trial(int fifo_priority) {
    TickTrial trial;
    std::thread(tick, std::ref(trial), fifo_priority).join();
    return trial;
}

} // namespace zel::doctor
