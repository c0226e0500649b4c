#pragma once

#include <string>
#include <string_view>

#include "common/FileDescriptor.h"

namespace guardian {

// Text files of the diagnostics: write-only, close-on-exec, mode 0644 when new, each line ended by
// a line feed. They may lie in folders that others can write to, so only regular files are opened:
// a link is not followed, and a named pipe or a device in a log's place is refused without a wait.
// Failures of the file are return values; nothing is thrown for them.

enum class TTextFileOpening {
  Append,          // To an existing file.
  AppendOrCreate,  // To an existing file, else to a new one.
  Truncate,        // To an empty file, made when missing.
  CreateNew,       // To a new file; fails where anything has the name.
};

// An open file, or an empty descriptor with the reason in errno: EINVAL for what is no regular
// file, ELOOP for a symbolic link. The form with a plain name is async-signal-safe.
[[nodiscard]] TFileDescriptor OpenTextFile(const char* name, TTextFileOpening opening) noexcept;
[[nodiscard]] inline TFileDescriptor OpenTextFile(const std::string& name,
                                                  TTextFileOpening opening) noexcept {
  return OpenTextFile(name.c_str(), opening);
}

// Writes the text in one call. Returns 0 or the error number. A text that a full disk cuts still
// ends in a line feed, so that the next one begins a line of its own.
[[nodiscard]] int WriteText(const TFileDescriptor& file, std::string_view text) noexcept;

// WriteText of the text and a line feed.
[[nodiscard]] int WriteTextLine(const TFileDescriptor& file, std::string_view text);

}  // namespace guardian
