#pragma once

namespace zel::test {

#if defined(__SANITIZE_THREAD__)
constexpr bool under_thread_sanitizer = true;
#else
constexpr bool under_thread_sanitizer = false;
#endif

#if defined(__SANITIZE_ADDRESS__)
constexpr bool under_address_sanitizer = true;
#else
constexpr bool under_address_sanitizer = false;
#endif

} // namespace zel::test
