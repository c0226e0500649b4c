#include "diagnostics/logs/ProtocolLog.h"

#include <cerrno>
#include <utility>

#include "common/ErrorLog.h"
#include "common/FileDescriptor.h"
#include "common/NeverDestroyed.h"
#include "common/Settings.h"
#include "common/TextFile.h"
#include "common/Thread.h"
#include "common/ThreadSlot.h"

namespace guardian {
namespace {

// One thread's protocol log.
// Owner: the thread.
// Threads: its thread only.
class TThreadProtocolLog {
 public:
  void SetBaseName(std::string baseName) { FBaseName = std::move(baseName); }

  // At most once a thread, whether it works or not.
  void OpenForThread() {
    if (FAttempted || IsOpen()) return;
    Create(NewFileName(),
           "\xEF\xBB\xBF"
           "Internet Protocol Log for separate thread for " +
               FBaseName);
    FAttempted = true;
  }

  void Create(const std::string& name, std::string_view firstLine) {
    FFile = OpenTextFile(name, TTextFileOpening::Truncate);
    FIoResult = FFile ? WriteTextLine(FFile, firstLine) : errno;
    if (FIoResult != 0) FFile.Close();
  }

  void WriteLine(std::string_view text) {
    if (!IsOpen()) return;
    const int result = WriteTextLine(FFile, text);
    if (FIoResult == 0) FIoResult = result;
  }

  [[nodiscard]] bool IsOpen() const noexcept { return static_cast<bool>(FFile); }

  // The error number of the first failure since the last call, 0 when there was none.
  [[nodiscard]] int TakeIoResult() noexcept { return std::exchange(FIoResult, 0); }

 private:
  [[nodiscard]] std::string NewFileName() const {
    TProtocolLogSettings& settings = ProtocolLogSettings();
    return settings.FolderPrefix.Copy() + FBaseName + ".thread" +
           std::to_string(settings.ThreadCount.fetch_add(1) + 1) + "#" +
           std::to_string(CurrentThreadId() & 0x7FFFFFFF) + ".log";
  }

  TFileDescriptor FFile;
  std::string FBaseName;
  bool FAttempted = false;
  int FIoResult = 0;
};

using TThisThreadLog = TThreadSlot<TThreadProtocolLog>;

std::string JoinedCommandLine() {
  std::string line;
  for (const auto& word : Settings().CommandLine) line += (line.empty() ? "" : " ") + word;
  return line;
}

}  // namespace

TProtocolLogSettings& ProtocolLogSettings() {
  static TNeverDestroyed<TProtocolLogSettings> settings;
  return *settings;
}

void SetProtocolLogBaseName(std::string baseName) {
  TThreadProtocolLog* const log = TThisThreadLog::Get();
  if (log != nullptr) log->SetBaseName(std::move(baseName));
}

bool OpenProtocolLogForThread(TProtocolLogOpening opening) {
  TThreadProtocolLog* const log = TThisThreadLog::Get();
  if (log == nullptr) return false;
  if (opening == TProtocolLogOpening::Forced || ProtocolLogSettings().Enabled) {
    log->OpenForThread();
  }
  const int result = log->TakeIoResult();
  if (result != 0 && ErrorLog().Enabled()) {
    ErrorLog().WriteLine("IndyLogging? IOresult=" + std::to_string(result));
  }
  return result == 0 && log->IsOpen();
}

bool OpenProtocolLogNamed(const std::string& name) {
  TThreadProtocolLog* const log = TThisThreadLog::Get();
  if (log == nullptr) return false;
  log->Create(name, "Log file opened for " + JoinedCommandLine());
  ProtocolLogSettings().FileName.Set(name);
  ProtocolLogSettings().Enabled = log->IsOpen();
  return log->IsOpen();
}

bool ProtocolLogIsOpen() noexcept {
  const TThreadProtocolLog* const log = TThisThreadLog::Get();
  return log != nullptr && log->IsOpen();
}

void WriteProtocolLogLine(std::string_view text) {
  TThreadProtocolLog* const log = TThisThreadLog::Get();
  if (log != nullptr) log->WriteLine(text);
}

}  // namespace guardian
