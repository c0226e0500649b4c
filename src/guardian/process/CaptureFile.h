#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/FileDescriptor.h"

namespace guardian {

// A file that catches what a shell command writes.
// Owner: one run of a command.
// Threads: not shared.
// Lifetime: the destructor removes the file if this object made it.
class TCaptureFile {
 public:
  TCaptureFile() = default;
  ~TCaptureFile();
  TCaptureFile(const TCaptureFile&) = delete;
  TCaptureFile& operator=(const TCaptureFile&) = delete;

  // Make, MakeNameless and Open each open the file; one of them is called, once per object. They
  // return 0 or the error number, and Name() is then the name that was tried.

  // Makes a new file in the folder, with the extension ".txt" and mode 0600; in "/dev/shm", which
  // is in memory, when the folder is "/tmp" and that is possible. Where the folder cannot be used,
  // or its file system has no room for 64 KiB, it makes the file in "/tmp", else in memory without
  // a folder, where its name leads to it for as long as this object lives; a diagnostic message
  // then says so. The error number is that of the folder.
  [[nodiscard]] int Make(const std::string& folder);

  // Makes an unnamed file: one in memory, or the removed one of a Make where the kernel has no
  // files in memory. Every write to it appends.
  [[nodiscard]] int MakeNameless(const std::string& folder);

  // Empties the file of that name; makes it, with mode 0600, when it is missing. EINVAL for a name
  // that cannot stand in double quotes.
  [[nodiscard]] int Open(const std::string& name);

  [[nodiscard]] const std::string& Name() const noexcept { return FName; }

  // Borrowed, for one call or for a child's standard output; -1 when not open.
  [[nodiscard]] int Descriptor() const noexcept { return FFile.Get(); }

  // Keeps a file in memory from taking more of it: in one without a folder every write fails that
  // would enlarge it, in every process that holds it; of one that was made in a folder, all behind
  // the first keptBytes is freed, at each call. A file on a disk goes on growing.
  void StopGrowth(std::uint64_t keptBytes) noexcept;

  // 0 when the file is not open or not a regular file.
  [[nodiscard]] std::uint64_t SizeBytes() const noexcept;

  // Appends the contents to the text, until the text has maxBytes. Returns 0 or the error number;
  // what had been read before the error is appended too.
  [[nodiscard]] int AppendTo(std::string& text, std::size_t maxBytes) const;

 private:
  int MakeUnique(const std::string& folder);
  int MakeWithRoom(const std::string& folder);
  int MakeInMemory();
  void Remove() noexcept;

  std::string FName;
  TFileDescriptor FFile;
  bool FIsOurs = false;  // The file was made here and still has its name.
};

// Whether the name can stand in a shell line between plain double quotes.
[[nodiscard]] bool IsSafeInDoubleQuotes(const std::string& name);

// The folder for temporary files: the wanted one, or "/tmp" when that is empty or its name cannot
// stand in double quotes.
[[nodiscard]] std::string UsableTempFolder(const std::string& wanted);

}  // namespace guardian
