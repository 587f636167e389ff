// The doctor's report for people and for programs.
#pragma once

#include "Check.hpp"

namespace zel::doctor {

bool all_good(std::span<const Result> results);
void print_text(std::span<const Result> results);
void print_json(std::span<const Result> results);

} // namespace zel::doctor
