#pragma once

#include <string_view>

namespace guardian {

// Single lines on the standard streams. A line for a stream that is closed or full is lost, since
// there is no better place to report that.
// Threads: any; lines of different threads do not mix.

// Writes the text and a line feed to standard output in one call and flushes.
void PrintLine(std::string_view text);

// The system debug output: writes the text and a line feed to standard error. Never throws.
void DebugOutput(std::string_view text) noexcept;

// The assertion facility: when the condition does not hold, puts "Assertion failed: " and the label
// on the debug output and returns. Never throws.
void KZAssert(bool condition, std::string_view label) noexcept;

}  // namespace guardian
