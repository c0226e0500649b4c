#include "guardian/SystemLog.h"

#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <utility>
#include <vector>

#include "common/Console.h"
#include "common/Mutex.h"
#include "common/NeverDestroyed.h"
#include "common/Progress.h"
#include "common/Thread.h"
#include "guardian/process.h"

namespace guardian {
namespace {

struct TSystemLogEntry {
  std::string Message;
  TSystemLogKind Kind = TSystemLogKind::Information;
};

// The texts that wait for the writer's thread.
// Owner: process-wide, see Queue(). Threads: any.
class TSystemLogQueue {
 public:
  // From now on texts are taken until Close.
  void Open() KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    FOpen = true;
  }

  void Close() KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    FOpen = false;
    FChanged.NotifyAll();
  }

  // Returns whether the entry was taken.
  bool Add(TSystemLogEntry entry) KZ_EXCLUDES(FLock) {
    constexpr std::size_t kMostEntries = 256;
    const TMutexLock lock(FLock);
    if (!FOpen) return false;
    if (FEntries.size() >= kMostEntries) {
      ++FDropped;
      return false;
    }
    if (auto note = TakeNoteLocked()) FEntries.push_back(std::move(*note));
    FEntries.push_back(std::move(entry));
    FChanged.NotifyAll();
    return true;
  }

  // Waits for the next entry; nothing when there is none and the queue is closed.
  std::optional<TSystemLogEntry> Take() KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    while (FOpen && FEntries.empty() && FDropped == 0) FChanged.Wait(FLock);
    if (FEntries.empty()) return TakeNoteLocked();
    TSystemLogEntry entry = std::move(FEntries.front());
    FEntries.pop_front();
    return entry;
  }

 private:
  // What stands in the place of the dropped entries.
  std::optional<TSystemLogEntry> TakeNoteLocked() KZ_REQUIRES(FLock) {
    if (FDropped == 0) return std::nullopt;
    const std::size_t dropped = std::exchange(FDropped, 0);
    return TSystemLogEntry{"The system log took no entries; dropped: " + std::to_string(dropped),
                           TSystemLogKind::Warning};
  }

  TMutex FLock;
  TCondition FChanged;
  bool FOpen KZ_GUARDED_BY(FLock) = true;
  std::size_t FDropped KZ_GUARDED_BY(FLock) = 0;
  std::deque<TSystemLogEntry> FEntries KZ_GUARDED_BY(FLock);
};

TSystemLogQueue& Queue() {
  static TNeverDestroyed<TSystemLogQueue> queue;
  return *queue;
}

void WriteSyslog(int priority, std::string_view message) {
  ::openlog("VellumarkGuardian", LOG_PID, LOG_DAEMON);
  ::syslog(priority, "%.*s", static_cast<int>(message.size()), message.data());
  ::closelog();
}

int SyslogPriority(TSystemLogKind kind) {
  switch (kind) {
    case TSystemLogKind::Error:
      return LOG_ERR;
    case TSystemLogKind::Warning:
      return LOG_WARNING;
    case TSystemLogKind::Information:
      break;
  }
  return LOG_INFO;
}

const char* SynologKind(TSystemLogKind kind) {
  switch (kind) {
    case TSystemLogKind::Error:
      return "err";
    case TSystemLogKind::Warning:
      return "warn";
    case TSystemLogKind::Information:
      break;
  }
  return "info";
}

bool IsThere(const std::string& tool) { return ::access(tool.c_str(), X_OK) == 0; }

// The tool's argument vector; empty on a machine without such a tool.
std::vector<std::string> ToolCommand(std::string_view message, TSystemLogKind kind,
                                     const TSystemLogTools& tools) {
  constexpr const char* kPlainTextEvent = "0x11100000";
  if (IsThere(tools.WriteLog)) {
    return {tools.WriteLog, std::string(message), std::to_string(static_cast<int>(kind))};
  }
  if (IsThere(tools.SynologSet)) {
    return {tools.SynologSet, "sys", SynologKind(kind), kPlainTextEvent, std::string(message)};
  }
  return {};
}

void WriteEntry(const TSystemLogEntry& entry, const TSystemLogTools& tools) {
  constexpr int kToolTimeoutSec = 5;
  const std::vector<std::string> command = ToolCommand(entry.Message, entry.Kind, tools);
  if (!command.empty()) {
    const int exitCode = RunProgram(command, kToolTimeoutSec).ExitCode;
    if (exitCode == 0) return;
    WriteSyslog(LOG_WARNING, "System log tool failed: " + command.front() + ", exit code " +
                                 std::to_string(exitCode));
  }
  WriteSyslog(SyslogPriority(entry.Kind), entry.Message);
}

}  // namespace

bool WriteSystemLog(std::string_view message, TSystemLogKind kind) noexcept try {
  return Queue().Add({std::string(message), kind});
} catch (...) {
  // Nobody is left to tell: the log itself cannot be reached.
  return false;
}

// Uses nothing but itself and the queue, because it may be left behind.
class TSystemLogWriter::TWriterThread final : public TThread {
 public:
  explicit TWriterThread(TSystemLogTools tools) : TThread("SystemLog"), FTools(std::move(tools)) {}
  ~TWriterThread() override { Join(); }

 private:
  void Execute() override {
    while (auto entry = Queue().Take()) {
      NoteProgress("SystemLog:Write");
      Write(*entry);
      NoteProgress("SystemLog:Wait");
    }
  }

  void Write(const TSystemLogEntry& entry) const noexcept try {
    WriteEntry(entry, FTools);
  } catch (...) {
    DebugOutput(entry.Message);
  }

  void OnTerminate() override { Queue().Close(); }

  const TSystemLogTools FTools;
};

TSystemLogWriter::TSystemLogWriter(TSystemLogTools tools)
    : FThread(std::make_unique<TWriterThread>(std::move(tools))) {
  Queue().Open();
  FThread->Start();
}

TSystemLogWriter::~TSystemLogWriter() {
  constexpr std::chrono::seconds kGrace{1};
  TThread::EndOrLeaveBehind(std::move(FThread), kGrace);
}

}  // namespace guardian
