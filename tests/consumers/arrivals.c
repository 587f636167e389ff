/* Says of some calls whether they arrived in the library or in the system, by what they did. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <time.h>
#include <zelkernel/kernel.h>
#include <zelkernel/threads.h>
#include <zelkernel/version.h>

static sem_t started;
static sem_t checked;

static void report(const char* call, int in_library) {
    printf("%s: %s\n", call, in_library ? "library" : "system");
}

static void* wait_until_checked(void* unused) {
    sem_post(&started);
    sem_wait(&checked);
    return unused;
}

static int start_thread(const pthread_attr_t* attr) {
    pthread_t thread;
    if (pthread_create(&thread, attr, wait_until_checked, NULL) != 0)
        return 1;
    sem_wait(&started);
    pthread_t id;
    unsigned int registered = 0;
    getCopyOfCurrentPthreadIds(&id, 1, &registered);
    sem_post(&checked);
    report("pthread_create", registered == 1);
    return 0;
}

static void read_clock(void) {
    struct timespec before;
    struct timespec after;
    clock_gettime(CLOCK_MONOTONIC, &before);
    starttimeInNs = before.tv_sec * 1000000000LL;
    clock_gettime(CLOCK_MONOTONIC, &after);
    report("clock_gettime", after.tv_sec < before.tv_sec);
}

int main(void) {
    if (zel_version() != ZEL_VERSION)
        return 1;
    sem_init(&started, 0, 0);
    sem_init(&checked, 0, 0);
    pthread_attr_t attr;
    size_t stack_size = 0;
    pthread_attr_init(&attr);
    pthread_attr_getstacksize(&attr, &stack_size);
    report("pthread_attr_init", stack_size == 16384);

    const struct sched_param lowest = {.sched_priority = 1};
    pthread_attr_setschedpolicy(&attr, SCHED_FIFO);
    if (pthread_attr_setschedparam(&attr, &lowest) != 0 || start_thread(&attr) != 0)
        return 1;
    report("pthread_setname_np", pthread_setname_np(pthread_self(), "longer than fifteen") == 0);
    read_clock();
    printf("interrupt platform: %s\n",
           dlsym(RTLD_DEFAULT, "openLinuxInterruptPulseFd") ? "simulated" : "none");
    return 0;
}
