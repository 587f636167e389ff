// 1,000 queued calls run in one pass, beside a bare loop of unlock, indirect call, lock. Both run
// in the kernel-call thread, turn by turn.
#include "Measure.hpp"

#include <zelkernel/kcall.h>
#include <zelkernel/locks.h>

#include <array>

namespace {

constexpr int turns = 400;
constexpr std::size_t calls = 1000;
constexpr const char* path = "1,000 queued calls in one pass";

using Function = void (*)(zel_word_t, zel_word_t, zel_word_t);

std::int64_t begin;
sem_t done;
pthread_mutex_t mutex;
std::array<KernelCall, calls> reference_calls;
volatile zel_word_t effect;

void work(zel_word_t a, zel_word_t b, zel_word_t c) {
    effect = a + b + c;
}

void finish(const char* side) {
    const auto ns = static_cast<double>(bench::now_ns() - begin);
    bench::report(path, side, ns / calls);
    sem_post(&done);
}

void start_clock(zel_word_t, zel_word_t, zel_word_t) {
    begin = bench::now_ns();
}

void stop_clock(zel_word_t, zel_word_t, zel_word_t) {
    finish("ours");
}

void run_reference(zel_word_t, zel_word_t, zel_word_t) {
    begin = bench::now_ns();
    pthread_mutex_lock(&mutex);
    for (const KernelCall& call : reference_calls) {
        pthread_mutex_unlock(&mutex);
        reinterpret_cast<Function>(call.function)(call.arguments[0], call.arguments[1],
                                                  call.arguments[2]);
        pthread_mutex_lock(&mutex);
    }
    pthread_mutex_unlock(&mutex);
    finish("reference");
}

void enqueue(Function function, zel_word_t argument = 0) {
    kcall_enqueue(reinterpret_cast<zel_word_t>(function), argument, 2, 3);
}

// A tick that finds the level set does nothing: the calls are queued as a whole.
void set_level(std::uint8_t level) {
    pthread_mutex_lock(&kcall_mutex);
    KCallLevel = level;
    pthread_mutex_unlock(&kcall_mutex);
}

void run_ours() {
    set_level(1);
    enqueue(start_clock);
    for (std::size_t i = 0; i < calls; ++i)
        enqueue(work, i);
    enqueue(stop_clock);
    set_level(0);
}

} // namespace

int main() {
    sem_init(&done, 0, 0);
    __wrap_pthread_mutex_init(&mutex, nullptr);
    for (auto& call : reference_calls)
        call = {reinterpret_cast<zel_word_t>(&work), {1, 2, 3}};
    bench::start_kernel(1000);
    for (int turn = 0; turn < turns; ++turn) {
        run_ours();
        __wrap_sem_wait(&done);
        enqueue(run_reference);
        __wrap_sem_wait(&done);
    }
    std::fflush(stdout);
    std::_Exit(EXIT_SUCCESS);
}
