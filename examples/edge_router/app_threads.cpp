#include "app_threads.hpp"

#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <semaphore.h>
#include <zelkernel/affinity.h>

namespace {

std::vector<AppThread>& started() {
    static std::vector<AppThread>& list = *new std::vector<AppThread>;
    return list;
}

struct Beginning {
    const char* name;
    Processors processors;
    void* (*routine)(void*);
    void* argument;
    sem_t done;
};

void* begin(void* beginning_word) {
    auto& beginning = *static_cast<Beginning*>(beginning_word);
    void* (*const routine)(void*) = beginning.routine;
    void* const argument = beginning.argument;
    pthread_setname_np(pthread_self(), beginning.name);
    if (beginning.processors == Processors::all) {
        setThreadAffinityAllCpus();
    }
    sem_post(&beginning.done);
    return routine(argument);
}

} // namespace

// These are plain POSIX calls; linked with wrapping they land in the library. It makes the thread
// SCHED_FIFO, detached and on processor 0, and converts the priority.
void start_app_thread(const char* name, int priority, void* (*routine)(void*), void* argument,
                      std::size_t stack, Processors processors) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setschedpolicy(&attributes, SCHED_FIFO); // before the priority, which it validates
    const sched_param parameters{.sched_priority = priority};
    pthread_attr_setschedparam(&attributes, &parameters);
    pthread_attr_setstacksize(&attributes, stack);
    Beginning beginning{name, processors, routine, argument, {}};
    sem_init(&beginning.done, 0, 0);
    pthread_t thread;
    if (pthread_create(&thread, &attributes, begin, &beginning) != 0) {
        std::fprintf(stderr, "edge_router: the thread \"%s\" cannot be started.\n", name);
        std::exit(1);
    }
    sem_wait(&beginning.done);
    pthread_attr_destroy(&attributes);
    started().push_back({name, priority, processors});
}

void note_app_thread(const char* name, int priority) {
    started().push_back({name, priority, Processors::first});
}

const std::vector<AppThread>& app_threads() {
    return started();
}
