#include "common/ErrorLog.h"

#include <utility>

#include "common/Console.h"
#include "common/Exceptions.h"
#include "common/NeverDestroyed.h"
#include "common/TextFile.h"

namespace guardian {
namespace {

constinit std::atomic<std::int64_t> lastFlushTick = 0;  // Atomic: flushed by any thread.

}  // namespace

bool TErrorLog::Open(const std::string& fileName) {
  const TMutexLock lock(FLock);
  FFileName = fileName;
  return OpenLocked(OpenTextFile(FFileName, TTextFileOpening::AppendOrCreate));
}

bool TErrorLog::OpenLocked(TFileDescriptor file) {
  FFile = std::move(file);
  const bool opened = static_cast<bool>(FFile);
  FEnabled.store(opened);
  return opened;
}

void TErrorLog::Close() {
  const TMutexLock lock(FLock);
  FEnabled.store(false);
  FFile.Close();
}

bool TErrorLog::Reopen() {
  const TMutexLock lock(FLock);
  if (!FFile) return true;
  FFile.Close();
  return OpenLocked(OpenTextFile(FFileName, TTextFileOpening::Append));
}

void TErrorLog::WriteLine(std::string_view line) noexcept {
  try {
    const TMutexLock lock(FLock);
    // A refused line is lost: this is where failures are reported to.
    if (FFile) static_cast<void>(WriteTextLine(FFile, line));
  } catch (...) {
    DebugOutput(line);
  }
}

TErrorLog& ErrorLog() {
  static TNeverDestroyed<TErrorLog> log;
  return *log;
}

void FlushLogFile(TClock& clock) {
  KZAssert(ErrorLog().Reopen(), "FlushLogFile");
  const std::int64_t tick = clock.TickCount();
  if (tick < 0) throw KZException("Range check error");
  lastFlushTick.store(tick);
}

std::int64_t LastFlushTick() noexcept { return lastFlushTick.load(); }

}  // namespace guardian
