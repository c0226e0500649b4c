#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/FileDescriptor.h"

namespace guardian {

// A file that catches what a shell command writes.
// Owner: one run of a command. Threads: not shared.
// Lifetime: the destructor removes the file if this object made it.
class TCaptureFile {
 public:
  TCaptureFile() = default;
  ~TCaptureFile();
  TCaptureFile(const TCaptureFile&) = delete;
  TCaptureFile& operator=(const TCaptureFile&) = delete;

  // Each opens the file, once per object, and returns 0 or the error number; Name() is then the
  // name that was tried.

  // A new file in the folder, with the extension ".txt", for this user alone.
  [[nodiscard]] int Make(const std::string& folder);

  // A file that nobody else can open by a name, in memory, or in the folder where the system has no
  // such thing; what is written to it is always appended.
  [[nodiscard]] int MakeNameless(const std::string& folder);

  // The file of that name, emptied; made, for this user alone, when it is missing.
  [[nodiscard]] int Open(const std::string& name);

  [[nodiscard]] const std::string& Name() const noexcept { return FName; }

  // For one call, or for handing it to a child.
  [[nodiscard]] int Descriptor() const noexcept { return FFile.Get(); }

  // Makes every write that would enlarge the file fail, for all who hold it. Only files in memory
  // can do it; others go on growing.
  void StopGrowth() noexcept;

  // 0 when not open.
  [[nodiscard]] std::uint64_t SizeBytes() const noexcept;

  // Appends the contents, at most so much of them that the text has maxBytes, to the text. Returns
  // 0 or the error number; what had been read is then appended.
  [[nodiscard]] int AppendTo(std::string& text, std::size_t maxBytes) const;

 private:
  int MakeUnique(const std::string& folder, int flags);
  void Remove() noexcept;

  std::string FName;
  TFileDescriptor FFile;
  bool FIsOurs = false;  // Made here and still under its name.
};

// Whether the name can stand in a shell line between plain double quotes.
[[nodiscard]] bool IsSafeInDoubleQuotes(const std::string& name);

// The folder for temporary files: the wanted one, or "/tmp" when that is empty or its name cannot
// stand in double quotes.
[[nodiscard]] std::string UsableTempFolder(const std::string& wanted);

}  // namespace guardian
