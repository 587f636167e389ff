// Says whether a std::thread, which can be joined in any case, is one of the library's.
#include <cstdio>
#include <pthread.h>
#include <thread>
#include <zelkernel/threads.h>

int main() {
    const sched_param lowest{1};
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &lowest);
    std::thread([] {
        pthread_t id;
        unsigned int registered = 0;
        getCopyOfCurrentPthreadIds(&id, 1, &registered);
        std::printf("std::thread: %s\n", registered == 1 ? "library" : "system");
    }).join();
}
