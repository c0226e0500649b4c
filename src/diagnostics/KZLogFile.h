#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/Clock.h"
#include "diagnostics/KZCriticalSection.h"

namespace guardian {

// An append-only text log. Every write opens the file, appends one line with the local date and
// time and closes the file again, so that others may read, move or delete it between writes:
//
//   TKZLogFile log("/var/log/v/sync.log");
//   log.Write("Job started");  // "2026-11-21 06:13:45: Job started"
//
// For other programs of the maker; the Guardian itself has no such log.
// Owner: the program that logs to the file.
// Threads: any thread may call anything. The lock serialises the writers of this object's file
// and is held while the file is written. Two objects with the same file do not exclude each other.
// Lifetime: the clock outlives it.
class TKZLogFile {
 public:
  static constexpr std::int64_t kMaxSizeBytes = 10'485'760;

  // A log with an empty name is disabled for good. A file larger than kMaxSizeBytes is renamed to
  // its name plus "-previous", which replaces an older one; a file that cannot be renamed is
  // deleted. This happens here only: later on the file grows without limit.
  explicit TKZLogFile(std::string fileName, TClock& clock = SystemClock());
  TKZLogFile(const TKZLogFile&) = delete;
  TKZLogFile& operator=(const TKZLogFile&) = delete;

  // For callers that write several lines as one block: Write works between the two calls.
  void Lock() KZ_ACQUIRE(FLock) { FLock.Enter(); }
  void Unlock() noexcept KZ_RELEASE(FLock) { FLock.Leave(); }

  // Appends the text, unchanged, as one line. A name that is not empty becomes the file of this and
  // all later writes: when a log folder is set, a name without "/" stands for
  // "<LogFolder>/<name>.log"; any other name is the file's. A file that cannot be opened is tried
  // 10 times, 100 ms apart; then, or when the disk refuses it, the line is dropped. What a disk
  // that becomes full has taken of it is a line of its own. Throws std::bad_alloc only.
  void Write(std::string_view text, std::string_view name = {});

  // The same for a wide text. It is written in the system's code page when that can hold it, else
  // in UTF-8.
  void WriteLine(std::u16string_view text, std::string_view name = {});

  // The folder for names without "/"; empty at first.
  void SetLogFolder(std::string folder);

  [[nodiscard]] std::string FileName() const;
  [[nodiscard]] bool Disabled() const noexcept { return FDisabled; }

 private:
  void ChooseFileLocked(std::string_view name) KZ_REQUIRES(FLock);
  void FormLineLocked(std::string_view text) KZ_REQUIRES(FLock);
  void AppendLineLocked() KZ_REQUIRES(FLock);
  const std::string& TimeTextLocked() KZ_REQUIRES(FLock);

  const bool FDisabled;
  TClock& FClock;
  mutable TKZCriticalSection FLock{"LogFile"};
  std::string FFileName KZ_GUARDED_BY(FLock);
  std::string FLogFolder KZ_GUARDED_BY(FLock);

  // The line that is being written; a field so that its memory is used again.
  std::string FLine KZ_GUARDED_BY(FLock);

  // The local date and time as text, and the UTC second that it shows.
  std::string FTimeText KZ_GUARDED_BY(FLock);
  std::int64_t FTimeTextSecond KZ_GUARDED_BY(FLock) = -1;
};

}  // namespace guardian
