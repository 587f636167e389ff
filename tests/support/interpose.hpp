#pragma once

#include <atomic>
#include <dlfcn.h>
#include <functional>

// Stands in front of a function of the system for the whole test program, the library included.
// interposed::NAME is empty at first, then every call goes on to the system; a case sets it to make
// calls fail or to look at them. real::NAME is the system's; it is looked up without the guard of a
// local static, which itself locks a mutex on some targets.
//
//   ZEL_INTERPOSE(int, pthread_attr_setstacksize, (pthread_attr_t * a, size_t s), (a, s), noexcept)
#define ZEL_INTERPOSE(result, name, parameters, arguments, exceptions)                             \
    namespace real {                                                                               \
    static result name parameters {                                                                \
        static std::atomic<result(*) parameters> next{};                                           \
        if (!next)                                                                                 \
            next = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name));                \
        return next.load() arguments;                                                              \
    }                                                                                              \
    }                                                                                              \
    namespace interposed {                                                                         \
    static std::function<result parameters> name;                                                  \
    }                                                                                              \
    extern "C" result name parameters exceptions {                                                 \
        return interposed::name ? interposed::name arguments : real::name arguments;               \
    }
