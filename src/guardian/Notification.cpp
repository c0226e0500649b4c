#include "guardian/Notification.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "common/Cancellation.h"
#include "common/Clock.h"
#include "common/Console.h"
#include "common/DiagnosticMessage.h"
#include "common/Environment.h"
#include "common/Exceptions.h"
#include "common/Mutex.h"
#include "common/Progress.h"
#include "guardian/process.h"

namespace guardian {
namespace {

constexpr std::size_t kPrograms = 4;

struct TNotice {
  TNoticeKind Kind = TNoticeKind::Error;
  std::string Text;
  std::string Status;
};

const char* NameOf(TNoticeKind kind) {
  constexpr std::array<const char*, 5> kNames = {"error", "warning", "recovered", "held",
                                                 "released"};
  return kNames.at(static_cast<std::size_t>(kind));
}

std::vector<std::string> EnvironmentOf(const TNotice& notice) {
  constexpr std::size_t kLongestValue = 4'096;
  const auto entry = [](const char* name, std::string_view value) {
    return std::string("VELLUMARK_GUARDIAN_")
        .append(name)
        .append("=")
        .append(value.substr(0, kLongestValue));
  };
  return {entry("KIND", NameOf(notice.Kind)), entry("TEXT", notice.Text), entry("HOST", HostName()),
          entry("STATUS", notice.Status)};
}

}  // namespace

// The notices that wait for a thread, and the lines that wait for the log.
// Threads: any.
class TNoticeQueue {
 public:
  // Cancelled when the programs that run are to end too.
  TCancellation Ending;

  // Ends the threads, and takes nothing any more. Returns how many notices waited.
  std::size_t Close() KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    FOpen = false;
    FChanged.NotifyAll();
    return FNotices.size();
  }

  void Add(TNotice notice) KZ_EXCLUDES(FLock) {
    constexpr std::size_t kMostNotices = 16;
    const TMutexLock lock(FLock);
    if (!FOpen) return;
    if (FNotices.size() >= kMostNotices) {
      return AddProblemLocked("The notification programs take too long; not told: " + notice.Text);
    }
    FNotices.push_back(std::move(notice));
    FChanged.NotifyOne();
  }

  // Waits for the next notice; nothing once the queue is closed.
  std::optional<TNotice> Take() KZ_EXCLUDES(FLock) {
    NoteProgress("Notifier:Wait");
    const TMutexLock lock(FLock);
    while (FOpen && FNotices.empty()) FChanged.Wait(FLock);
    if (!FOpen) return std::nullopt;
    TNotice notice = std::move(FNotices.front());
    FNotices.pop_front();
    return notice;
  }

  void AddProblem(std::string line) KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    AddProblemLocked(std::move(line));
  }

  std::vector<std::string> TakeProblems() KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    return std::exchange(FProblems, {});
  }

 private:
  // Of many problems the first ones are kept.
  void AddProblemLocked(std::string line) KZ_REQUIRES(FLock) {
    constexpr std::size_t kMostProblems = 16;
    if (FProblems.size() < kMostProblems) FProblems.push_back(std::move(line));
  }

  TMutex FLock;
  TCondition FChanged;
  bool FOpen KZ_GUARDED_BY(FLock) = true;
  std::deque<TNotice> FNotices KZ_GUARDED_BY(FLock);
  std::vector<std::string> FProblems KZ_GUARDED_BY(FLock);
};

namespace {

// In a thread of the notifier's, since the file may lie on a disk that does not answer.
void CheckProgram(const std::string& program, TNoticeQueue& queue) {
  std::error_code error;
  if (program.starts_with('/') && std::filesystem::is_regular_file(program, error) &&
      ::access(program.c_str(), X_OK) == 0) {
    return;
  }
  PrintLine(
      "VELLUMARK_GUARDIAN_NOTIFY is no absolute path of an executable file, so nobody is "
      "notified: " +
      program);
  queue.Close();
}

void RunFor(const TNotice& notice, const std::string& program, TNoticeQueue& queue) {
  constexpr int kTimeoutSec = 30;
  NoteProgress("Notifier:Run");
  const TProgramEnd end = RunProgram({program}, kTimeoutSec, &queue.Ending, EnvironmentOf(notice));
  if (end.ExitCode == 0) return;
  std::string reason = "exit code " + std::to_string(end.ExitCode);
  if (end.ExitCode < 0) reason = "ended after " + std::to_string(kTimeoutSec) + " seconds";
  if (end.ErrorNumber != 0) reason = SystemErrorText(end.ErrorNumber);
  queue.AddProblem("Notification failed: " + program + ": " + reason + "; notice: " + notice.Text);
}

// Uses nothing but its own, because its thread may be left behind.
void RunForAll(const std::string& program, TNoticeQueue& queue) {
  while (const auto notice = queue.Take()) {
    Guarded("Notification", SystemClock(), [&] { RunFor(*notice, program, queue); });
  }
}

}  // namespace

TNotifier::TNotifier(const std::string& program)
    : FQueue(std::make_shared<TNoticeQueue>()), FCloseQueue([this] { FQueue->Close(); }) {
  constexpr std::size_t kStackBytes = 1'048'576;
  if (program.empty()) FQueue->Close();
  for (std::size_t number = 1; !program.empty() && number <= kPrograms; ++number) {
    const auto work = [program, isFirst = number == 1, queue = FQueue] {
      if (isFirst) CheckProgram(program, *queue);
      RunForAll(program, *queue);
    };
    FThreads.push_back(std::make_unique<TFunctionThread>("Notifier #" + std::to_string(number),
                                                         work, kStackBytes));
    FThreads.back()->Start();
  }
}

TNotifier::~TNotifier() {
  constexpr std::int64_t kGraceMs = 700;  // A program that is ended has half a second of it.
  const std::size_t waited = FQueue->Close();
  FQueue->Ending.Cancel();
  if (waited > 0) PrintLine("Notices that nobody was told of: " + std::to_string(waited));
  const std::int64_t end = SystemTickCount() + kGraceMs;
  for (auto& thread : FThreads) {
    const std::chrono::milliseconds left(std::max<std::int64_t>(end - SystemTickCount(), 0));
    TThread::EndOrLeaveBehind(std::move(thread), left);
  }
}

void TNotifier::Tell(TNoticeKind kind, std::string_view text, std::string_view status) {
  FQueue->Add({kind, std::string(text), std::string(status)});
}

std::vector<std::string> TNotifier::TakeProblems() { return FQueue->TakeProblems(); }

}  // namespace guardian
