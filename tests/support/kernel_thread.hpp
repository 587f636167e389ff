#pragma once

#include <zelkernel/scheduling.h>
#include <zelkernel/threads.h>

#include <functional>
#include <memory>
#include <pthread.h>
#include <semaphore.h>
#include <utility>

namespace zel::test {

// An attribute object with the kernel's defaults and a Linux priority.
class Attributes {
public:
    explicit Attributes(int linux_priority) {
        __wrap_pthread_attr_init(&attr_);
        const sched_param param{linux_priority};
        pthread_attr_setschedpolicy(&attr_, SCHED_FIFO);
        pthread_attr_setschedparam(&attr_, &param);
    }
    ~Attributes() { pthread_attr_destroy(&attr_); }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;

    operator pthread_attr_t*() { return &attr_; }

private:
    pthread_attr_t attr_{};
};

// Runs `body` in a thread of the library's creation call. Such threads are detached: what is waited
// for is the end of `body`, also by cancellation or pthread_exit.
class KernelThread {
public:
    KernelThread(const pthread_attr_t* attr, std::function<void()> body)
        : shared_(std::make_shared<Shared>(std::move(body))) {
        auto* argument = new std::shared_ptr<Shared>(shared_);
        result = __wrap_pthread_create(&id, attr, run, argument);
        if (result != 0)
            delete argument;
    }
    void join() {
        if (result == 0)
            sem_wait(&shared_->ended);
    }

    pthread_t id{};
    int result;

private:
    struct Shared {
        explicit Shared(std::function<void()> function) : body(std::move(function)) {
            sem_init(&ended, 0, 0);
        }
        std::function<void()> body;
        sem_t ended;
    };
    struct Ending {
        std::shared_ptr<Shared> shared;
        ~Ending() { sem_post(&shared->ended); }
    };

    static void* run(void* argument) {
        auto* shared = static_cast<std::shared_ptr<Shared>*>(argument);
        const Ending ending{std::move(*shared)};
        delete shared;
        ending.shared->body();
        return nullptr;
    }

    std::shared_ptr<Shared> shared_;
};

// Runs `body` in such a thread with default attributes and waits for it.
inline void on_kernel_thread(std::function<void()> body, int linux_priority = 1) {
    KernelThread{Attributes{linux_priority}, std::move(body)}.join();
}

// Puts the calling thread under SCHED_FIFO.
inline bool become_fifo(int linux_priority) {
    const sched_param param{linux_priority};
    return pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0;
}

} // namespace zel::test
