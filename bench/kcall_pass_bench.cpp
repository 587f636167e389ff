// 1,000 queued calls run in one pass, beside a bare loop of unlock, indirect call, lock. Both run
// in the kernel-call thread, turn by turn, started from calls of one pass: what a call queues runs
// in the same pass, so that no tick can begin with half of the calls.
#include "Measure.hpp"

#include <zelkernel/kcall.h>
#include <zelkernel/locks.h>

#include <array>

namespace {

constexpr std::size_t calls = 1000;
constexpr const char* path = "1,000 queued calls in one pass";

using Function = void (*)(zel_word_t, zel_word_t, zel_word_t);

std::int64_t begin;
sem_t done;
double ours;
double reference;
pthread_mutex_t mutex;
std::array<KernelCall, calls> reference_calls;
volatile zel_word_t effect;

void work(zel_word_t a, zel_word_t b, zel_word_t c) {
    effect = a + b + c;
}

double time_of_a_call() {
    return static_cast<double>(bench::now_ns() - begin) / calls;
}

void enqueue(Function function, zel_word_t argument = 0) {
    kcall_enqueue(reinterpret_cast<zel_word_t>(function), argument, 2, 3);
}

void run_reference() {
    for (std::size_t i = 0; i < calls; ++i)
        reference_calls[i] = {reinterpret_cast<zel_word_t>(&work), {i, 2, 3}};
    begin = bench::now_ns();
    pthread_mutex_lock(&mutex);
    for (const KernelCall& call : reference_calls) {
        pthread_mutex_unlock(&mutex);
        reinterpret_cast<Function>(call.function)(call.arguments[0], call.arguments[1],
                                                  call.arguments[2]);
        pthread_mutex_lock(&mutex);
    }
    pthread_mutex_unlock(&mutex);
    reference = time_of_a_call();
}

void finish_turn(zel_word_t, zel_word_t, zel_word_t) {
    ours = time_of_a_call();
    run_reference();
    sem_post(&done);
}

void run_turn(zel_word_t, zel_word_t, zel_word_t) {
    for (std::size_t i = 0; i < calls; ++i)
        enqueue(work, i);
    enqueue(finish_turn);
    begin = bench::now_ns();
}

} // namespace

int main() {
    sem_init(&done, 0, 0);
    __wrap_pthread_mutex_init(&mutex, nullptr);
    bench::start_kernel(1000);
    for (int turn = 0; turn < bench::turns(400); ++turn) {
        enqueue(run_turn);
        __wrap_sem_wait(&done);
        bench::report(path, "ours", ours);
        bench::report(path, "reference", reference);
    }
    std::fflush(stdout);
    std::_Exit(EXIT_SUCCESS);
}
