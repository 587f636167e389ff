#include "app_threads.hpp"

#include <cstdio>
#include <cstdlib>
#include <pthread.h>

namespace {

std::vector<AppThread>& started() {
    static std::vector<AppThread>& list = *new std::vector<AppThread>;
    return list;
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
    pthread_t thread;
    if (pthread_create(&thread, &attributes, routine, argument) != 0) {
        std::fprintf(stderr, "edge_router: the thread \"%s\" cannot be started.\n", name);
        std::exit(1);
    }
    pthread_setname_np(thread, name);
    pthread_attr_destroy(&attributes);
    started().push_back({name, priority, processors});
}

void note_app_thread(const char* name, int priority) {
    started().push_back({name, priority, Processors::first});
}

const std::vector<AppThread>& app_threads() {
    return started();
}
