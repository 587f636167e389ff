#pragma once

#include "sanitizers.hpp"

#include <cerrno>
#include <cstddef>
#include <gtest/gtest.h>
#include <utility>

namespace zel::test {

// Which of the calling thread's next allocations fails, counting from 1; 0: none.
[[maybe_unused]] static thread_local int allocation_to_fail = 0;

// What the calling thread has allocated less what it has freed.
[[maybe_unused]] static thread_local long allocations_alive = 0;

// A sanitizer has allocators of its own, which cannot be made to fail from here.
constexpr bool can_fail_allocations = !under_address_sanitizer && !under_thread_sanitizer;

// Runs `action` with each of its allocations failing, the first alone, then the second alone, until
// it needs no more of them; `check` looks at each failed run. Returns how many there were.
template<typename Action, typename Check>
int fail_each_allocation(Action action, Check check) {
    for (int n = 1;; ++n) {
        const long before = allocations_alive;
        allocation_to_fail = n;
        action();
        if (std::exchange(allocation_to_fail, 0) != 0)
            return n - 1;
        EXPECT_LE(allocations_alive, before) << "allocation " << n;
        check();
    }
}

} // namespace zel::test

#define SKIP_IF_ALLOCATIONS_CANNOT_FAIL()                                                          \
    if (!zel::test::can_fail_allocations)                                                          \
    GTEST_SKIP() << "the sanitizer has its own allocator"

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void* __libc_malloc(size_t size);
extern "C" void __libc_free(void* memory);

// Serves the library and operator new, too.
extern "C" void* malloc(size_t size) noexcept {
    int& countdown = zel::test::allocation_to_fail;
    if (countdown > 0 && --countdown == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    ++zel::test::allocations_alive;
    return __libc_malloc(size);
}

extern "C" void free(void* memory) noexcept {
    zel::test::allocations_alive -= memory != nullptr;
    __libc_free(memory);
}
#endif
