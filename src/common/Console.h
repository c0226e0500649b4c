#pragma once

#include <string_view>

namespace guardian {

// Single lines on the standard streams.
// Threads: any; lines of different threads do not mix.

// Writes the text and a line feed to standard output in one call and flushes. Waits for the reader.
// A line for a stream that is closed or full is lost, since there is no better place to report it.
void PrintLine(std::string_view text);

// The system debug output: writes the text and a line feed to standard error. Never waits: what the
// reader does not take at once is lost, and the next line begins on a line of its own. Returns
// whether the whole line went to somebody: not when standard error is closed, is "/dev/null", has
// lost its reader, or is full. Never throws.
bool DebugOutput(std::string_view text) noexcept;

// The assertion facility: when the condition does not hold, puts "Assertion failed: " and the label
// on the debug output and returns. Never throws.
void KZAssert(bool condition, std::string_view label) noexcept;

}  // namespace guardian
