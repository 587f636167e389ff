// The names of the application's functions and variables, for the addresses in a recording: where
// the report is made, its files need not be.
#pragma once

#include <cstdint>
#include <string>

namespace trace {

// Lines for the recording: "symbols BASE PATH" and, for each, "symbol VALUE SIZE NAME", to whose
// value the base is to be added. `base` is where the file at `path` is mapped.
std::string describe_symbols(const std::string& path, std::uint64_t base);

} // namespace trace
