#pragma once

#include <string_view>

namespace guardian {

// The system debug output: one line on standard error. Never throws; a standard error that is
// closed or full loses the line, since there is no better place to say so.
// Threads: any; lines of different threads do not mix.
void DebugOutput(std::string_view text) noexcept;

// The assertion facility: when the condition does not hold, puts "Assertion failed: " and the label
// on the debug output and returns. Never throws.
void KZAssert(bool condition, std::string_view label) noexcept;

}  // namespace guardian
