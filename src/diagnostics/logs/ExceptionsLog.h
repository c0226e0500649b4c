#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace guardian {

// The exceptions log of this executable. One older generation of it is kept.
// Threads: any thread may call anything.

// "<log folder>/<executable without .exe>_Exceptions.log".
[[nodiscard]] std::string ExceptionsLogName();

// The size above which the log becomes the older generation: 100 MiB, in debug mode a hundredth of
// that.
[[nodiscard]] std::int64_t ExceptionsLogLimit() noexcept;

// Appends the text, which is whole lines, in one system call. A log above its limit is first
// renamed to end in ".prev.log" and replaces an older file of that name. Returns the log's name; it
// is empty when the log cannot be opened or written. Throws std::bad_alloc only.
[[nodiscard]] std::string AppendToExceptionsLog(std::string_view text);

}  // namespace guardian
