#pragma once

#include <string>
#include <string_view>

#include "common/FileDescriptor.h"

namespace guardian {

// Text files of the diagnostics: write-only, close-on-exec, mode 0644 when new, each line ended by
// a line feed. Failures of the file are return values; nothing is thrown for them.

enum class TTextFileOpening {
  Append,          // To an existing file.
  AppendOrCreate,  // To an existing file, else to a new one.
  Truncate,        // To an empty file, made when missing.
  CreateNew,       // To a new file; fails where a file or a symbolic link has the name.
};

// An open file, or an empty descriptor with the reason in errno.
[[nodiscard]] TFileDescriptor OpenTextFile(const std::string& name, TTextFileOpening opening);

// Writes the text and a line feed in one call. Returns 0 or the error number.
[[nodiscard]] int WriteTextLine(const TFileDescriptor& file, std::string_view text);

}  // namespace guardian
