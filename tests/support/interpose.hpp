#pragma once

#include <cstdint>
#include <ctime>
#include <dlfcn.h>
#include <functional>
#include <list>
#include <type_traits>

namespace zel::test {

template<typename Signature>
class Hook {
public:
    template<typename Function>
    Hook& operator=(Function function) {
        std::function<Signature>* installed = nullptr;
        if constexpr (!std::is_same_v<Function, std::nullptr_t>) {
            static auto& kept = *new std::list<std::function<Signature>>; // threads may be in them
            installed = &kept.emplace_back(std::move(function));
        }
        __atomic_store_n(&installed_, installed, __ATOMIC_RELEASE);
        return *this;
    }
    [[gnu::no_sanitize_thread]] bool is_set() const {
        return __atomic_load_n(&installed_, __ATOMIC_RELAXED) != nullptr;
    }
    // Out of line, so that the thread sanitizer sees the order.
    [[gnu::noinline]] auto* get() const { return __atomic_load_n(&installed_, __ATOMIC_ACQUIRE); }

private:
    std::function<Signature>* installed_;
};

#if __TIMESIZE == 32
struct SystemTime {
    std::int64_t tv_sec;
    long tv_nsec;
    int : 32;
};
#else
using SystemTime = timespec;
#endif

} // namespace zel::test

// Stands in front of a function of the system for the whole test program, the library included.
// interposed::NAME is empty at first, then every call goes on to the system; a case sets it to make
// calls fail or to look at them. real::NAME is the system's. Not seen by the thread sanitizer,
// which itself calls some of these functions before it knows the thread.
//
//   ZEL_INTERPOSE(int, pthread_attr_setstacksize, (pthread_attr_t * a, size_t s), (a, s))
#define ZEL_INTERPOSE(result, name, parameters, arguments)                                         \
    ZEL_INTERPOSE_AS(name, #name, result, name, parameters, arguments)

// The same for a function that takes or gives a time. Where time has two widths, the library calls
// the system with 64-bit time alone, also if the test is compiled with 32-bit time: real:: and
// interposed::NAME are the C library's __NAME64, and a time is a SystemTime.
#if __TIMESIZE == 32
#define ZEL_INTERPOSE_TIME(result, name, parameters, arguments)                                    \
    ZEL_INTERPOSE_AS(__##name##64, "__" #name "64", result, name, parameters, arguments)
#else
#define ZEL_INTERPOSE_TIME ZEL_INTERPOSE
#endif

#define ZEL_INTERPOSE_AS(function, symbol, result, name, parameters, arguments)                    \
    namespace real {                                                                               \
    [[gnu::no_sanitize_thread]] static result name parameters {                                    \
        static result(*next) parameters;                                                           \
        if (next == nullptr)                                                                       \
            next = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, symbol));               \
        return next arguments;                                                                     \
    }                                                                                              \
    }                                                                                              \
    namespace interposed {                                                                         \
    static zel::test::Hook<result parameters> name;                                                \
    }                                                                                              \
    extern "C" [[gnu::no_sanitize_thread]] result function parameters {                            \
        const auto* hook = interposed::name.is_set() ? interposed::name.get() : nullptr;           \
        return hook != nullptr ? (*hook)arguments : real::name arguments;                          \
    }
