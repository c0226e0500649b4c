#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "common/Clock.h"
#include "diagnostics/KZCriticalSection.h"

namespace guardian {

// An append-only text log. Every write opens the file, appends one line with the local date and
// time and closes the file again, so that others may read, move or delete it between writes.
// Owner: whoever logs to the file.
// Threads: any thread may call anything. The lock serialises the writers of this object's file
// and is held while the file is written; two objects on one file do not exclude each other.
// Lifetime: the clock outlives it.
class TKZLogFile {
 public:
  static constexpr std::int64_t kMaxSizeBytes = 10'485'760;

  // A log with an empty name is disabled for good. A file larger than kMaxSizeBytes is first
  // renamed to its name plus "-previous", over an older one, or deleted when that fails; later on
  // it grows without limit.
  explicit TKZLogFile(std::string fileName, TClock& clock = SystemClock());
  TKZLogFile(const TKZLogFile&) = delete;
  TKZLogFile& operator=(const TKZLogFile&) = delete;

  // For callers that write several lines as one block; the holder may write.
  void Lock() KZ_ACQUIRE(FLock) { FLock.Enter(); }
  void Unlock() noexcept KZ_RELEASE(FLock) { FLock.Leave(); }

  // Appends the text as it stands as one line. A name that is not empty becomes the file of this
  // and all later writes: a bare name stands for "<LogFolder>/<name>.log" when a log folder is
  // set, anything else for itself. A file that cannot be opened is tried 10 times, 100 ms apart;
  // then, or when the disk refuses it, the line is dropped. Throws std::bad_alloc only.
  void Write(std::string_view text, std::string_view name = {});

  // The same for a wide text, written in the system's code page when that loses nothing, else in
  // UTF-8.
  void WriteLine(std::u16string_view text, std::string_view name = {});

  // The folder of bare names; empty at first.
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
  std::string FLine KZ_GUARDED_BY(FLock);  // Kept for its memory.
  std::string FTimeText KZ_GUARDED_BY(FLock);
  std::int64_t FTimeTextSecond KZ_GUARDED_BY(FLock) = -1;  // The UTC second that FTimeText shows.
};

}  // namespace guardian
