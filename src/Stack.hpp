#pragma once

#include <cstddef>

namespace zel {

// Default and smallest stack of the kernel's threads.
constexpr std::size_t minimum_stack_size = 16384;

} // namespace zel
