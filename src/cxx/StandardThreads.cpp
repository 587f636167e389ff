// The opt-in part for C++ applications: what their objects call in libstdc++, linked statically or
// not, is redirected here by --wrap of the mangled names (CMakeLists.txt). Part of the application,
// not of the library: what is called here is exported.
#include <zelkernel/conditions.h>
#include <zelkernel/locks.h>
#include <zelkernel/system.h>
#include <zelkernel/threads.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <system_error>
#include <thread>

namespace zel::cxx {

// What std::thread::_State is to its callers, as libstdc++'s interface lays it out; the class
// itself is private from GCC 14 on.
class Routine {
public:
    Routine(const Routine&) = delete;
    Routine& operator=(const Routine&) = delete;
    virtual ~Routine();
    virtual void _M_run() = 0;
};
} // namespace zel::cxx

namespace {

using State = std::unique_ptr<zel::cxx::Routine>;

void* run(void* arg) {
    const State state{static_cast<State::pointer>(arg)};
    state->_M_run();
    return nullptr;
}

// Joinable, unlike a thread of pthread_create: a std::thread always ends by join or detach. Its
// stack is the process's default, since no constructor can ask for a size; its priority is the
// creator's, since none is set.
class ThreadAttributes {
public:
    ThreadAttributes() {
        pthread_getattr_default_np(&attr_);
        pthread_attr_setinheritsched(&attr_, PTHREAD_EXPLICIT_SCHED);
        pthread_attr_setschedpolicy(&attr_, SCHED_FIFO);
    }
    ~ThreadAttributes() { pthread_attr_destroy(&attr_); }
    ThreadAttributes(const ThreadAttributes&) = delete;
    ThreadAttributes& operator=(const ThreadAttributes&) = delete;

    const pthread_attr_t* get() const { return &attr_; }

private:
    pthread_attr_t attr_{};
};

int start(pthread_t& id, State& state) {
    if (posix_locks_enabled == 0)
        return EPERM;
    auto* block = static_cast<ThreadStartBlock*>(std::malloc(sizeof(ThreadStartBlock)));
    if (block == nullptr)
        return ENOMEM;
    *block = {run, state.get()};
    const ThreadAttributes attributes;
    const int result = __zel_pure_pthread_create(&id, attributes.get(), thread_func, block);
    if (result != 0) {
        std::free(block);
        return result;
    }
    static_cast<void>(state.release()); // the thread's now
    return 0;
}

} // namespace

namespace zel::cxx {

// The redirected functions, by what they are to their callers: members of the standard classes.
void start_thread(std::thread* self, State state, void (*depend)()) __asm__(
    "__wrap__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_"
    "EEPFvvE");
void destroy_condition(std::condition_variable* self) noexcept
    __asm__("__wrap__ZNSt18condition_variableD1Ev");
void destroy_base_condition(std::condition_variable* self) noexcept
    __asm__("__wrap__ZNSt18condition_variableD2Ev");
std::chrono::steady_clock::time_point now() noexcept
    __asm__("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");

static_assert(sizeof(std::thread) == sizeof(std::thread::id));

void start_thread(std::thread* self, State state, void (*)()) {
    pthread_t id{};
    if (const int error = start(id, state))
        throw std::system_error(error, std::generic_category());
    new (self) std::thread::id(id); // all that there is in one
}

// Not the destructor of libstdc++, which a shared one would call without the library's knowledge.
void destroy_condition(std::condition_variable* self) noexcept {
    __wrap_pthread_cond_destroy(self->native_handle());
}

// Of a class that is derived from it.
void destroy_base_condition(std::condition_variable* self) noexcept {
    destroy_condition(self);
}

// From boot, as the standard library's waits count, whichever libstdc++ they are in.
std::chrono::steady_clock::time_point now() noexcept {
    timespec uptime{};
    zel_get_uptime(&uptime);
    return std::chrono::steady_clock::time_point{
        std::chrono::seconds{uptime.tv_sec} +
        std::chrono::nanoseconds{uptime.tv_nsec + zel_get_starttime_in_ns()}};
}

} // namespace zel::cxx
