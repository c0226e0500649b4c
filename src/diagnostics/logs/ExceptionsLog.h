#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace guardian {

// The exceptions log of this executable, one generation of which is kept.
// Threads: any thread may call anything.

// "<log folder>/<executable without .exe>_Exceptions.log".
[[nodiscard]] std::string ExceptionsLogName();

// The size above which the log becomes the older generation: 100 MiB, in debug mode a hundredth of
// that.
[[nodiscard]] std::int64_t ExceptionsLogLimit() noexcept;

// Appends the text, whole lines, in one call of the system; a log above its limit is first renamed
// to end in ".prev.log", over an older one. Returns the file's name, empty when it cannot be opened
// or does not take the text. Throws std::bad_alloc only.
[[nodiscard]] std::string AppendToExceptionsLog(std::string_view text);

}  // namespace guardian
