#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/Clock.h"
#include "common/FileDescriptor.h"
#include "common/Mutex.h"

namespace guardian {

// The text file that the diagnostics write their single lines to.
// Owner: process-wide, see ErrorLog(); the start-up code opens it, the shut-down code closes it.
// Threads: any thread may call anything; the lock serialises the one file.
class TErrorLog {
 public:
  TErrorLog() = default;
  TErrorLog(const TErrorLog&) = delete;
  TErrorLog& operator=(const TErrorLog&) = delete;

  // Opens the file for appending, else creates it, and enables the log; a file that was open is
  // closed first. Returns whether it is open now.
  [[nodiscard]] bool Open(const std::string& fileName) KZ_EXCLUDES(FLock);
  void Close() KZ_EXCLUDES(FLock);

  // Closes the file and opens it again for appending, so that all written lines are in the file.
  // Returns false when it could not be opened again; the log is then closed. Does nothing, and
  // returns true, while the log is closed.
  [[nodiscard]] bool Reopen() KZ_EXCLUDES(FLock);

  // True while it is open.
  [[nodiscard]] bool Enabled() const noexcept { return FEnabled.load(); }

  // Writes one line; dropped while the log is closed or when the file refuses it. Never throws.
  void WriteLine(std::string_view line) noexcept KZ_EXCLUDES(FLock);

 private:
  [[nodiscard]] bool OpenLocked(TFileDescriptor file) KZ_REQUIRES(FLock);

  std::atomic<bool> FEnabled = false;  // Atomic: asked before a line is put together.
  TMutex FLock;
  std::string FFileName KZ_GUARDED_BY(FLock);
  TFileDescriptor FFile KZ_GUARDED_BY(FLock);
};

// The one object; made at first use, never freed, since threads may report until the very end.
[[nodiscard]] TErrorLog& ErrorLog();

// Flushes the error log by closing and reopening it, and remembers the time; a log that cannot be
// reopened is reported as the assertion "FlushLogFile". Throws KZException "Range check error" when
// the tick count is negative.
void FlushLogFile(TClock& clock = SystemClock());

// The tick count of the last FlushLogFile, in milliseconds; 0 before the first.
[[nodiscard]] std::int64_t LastFlushTick() noexcept;

}  // namespace guardian
