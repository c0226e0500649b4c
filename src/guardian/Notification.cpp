#include "guardian/Notification.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <utility>

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
constexpr std::size_t kMostWaiting = 16;

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

bool IsExecutableFile(const std::string& path) {
  struct stat file {};
  return ::stat(path.c_str(), &file) == 0 && S_ISREG(file.st_mode) &&
         ::access(path.c_str(), X_OK) == 0;
}

}  // namespace

// The notices that wait for a thread, and the lines that wait for the log.
// Threads: any.
class TNotifier::TQueue {
 public:
  void Close() KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    FOpen = false;
    FNotices.clear();
    FChanged.NotifyAll();
  }

  void Add(TNotice notice) KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    if (!FOpen) return;
    if (FNotices.size() >= kMostWaiting) {
      ++FDropped;
      return;
    }
    FNotices.push_back(std::move(notice));
    FChanged.NotifyOne();
  }

  void CountDropped() noexcept KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    ++FDropped;
  }

  // Waits for the next notice; nothing once the queue is closed.
  std::optional<TNotice> Take() KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    while (FOpen && FNotices.empty()) FChanged.Wait(FLock);
    if (!FOpen) return std::nullopt;
    TNotice notice = std::move(FNotices.front());
    FNotices.pop_front();
    return notice;
  }

  // Of many problems the first ones are kept.
  void AddProblem(std::string line) KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    if (FProblems.size() < kMostWaiting) FProblems.push_back(std::move(line));
  }

  std::vector<std::string> TakeProblems() KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    if (FDropped > 0) {
      FProblems.push_back("The notification programs take too long; notices dropped: " +
                          std::to_string(std::exchange(FDropped, 0)));
    }
    return std::exchange(FProblems, {});
  }

 private:
  TMutex FLock;
  TCondition FChanged;
  bool FOpen KZ_GUARDED_BY(FLock) = true;
  std::size_t FDropped KZ_GUARDED_BY(FLock) = 0;
  std::deque<TNotice> FNotices KZ_GUARDED_BY(FLock);
  std::vector<std::string> FProblems KZ_GUARDED_BY(FLock);
};

// Runs the program for one notice after the other. Uses nothing but itself and the queue, because
// it may be left behind.
class TNotifier::TTellingThread final : public TThread {
 public:
  TTellingThread(std::size_t number, std::string program, std::shared_ptr<TQueue> queue)
      : TThread("Notifier #" + std::to_string(number), kStackBytes),
        FIsFirst(number == 1),
        FProgram(std::move(program)),
        FQueue(std::move(queue)) {}
  ~TTellingThread() override { Join(); }

 private:
  static constexpr std::size_t kStackBytes = 1'048'576;

  void Execute() override {
    if (FIsFirst) CheckProgram();
    NoteProgress("Notifier:Wait");
    while (auto notice = FQueue->Take()) {
      NoteProgress("Notifier:Run");
      Guarded("Notification", SystemClock(), [&] { Tell(*notice); });
      NoteProgress("Notifier:Wait");
    }
  }

  // Here, since the file may lie on a disk that does not answer.
  void CheckProgram() {
    if (IsExecutableFile(FProgram)) return;
    PrintLine("VELLUMARK_GUARDIAN_NOTIFY: \"" + FProgram +
              "\" is no executable file; nobody is notified");
    FQueue->Close();
  }

  void Tell(const TNotice& notice) const {
    constexpr int kTimeoutSec = 30;
    const TProgramEnd end = RunProgram({FProgram}, kTimeoutSec, nullptr, EnvironmentOf(notice));
    if (end.ExitCode == 0) return;
    std::string reason = "exit code " + std::to_string(end.ExitCode);
    if (end.ExitCode < 0) reason = "ended after " + std::to_string(kTimeoutSec) + " seconds";
    if (end.ErrorNumber != 0) reason = SystemErrorText(end.ErrorNumber);
    FQueue->AddProblem("Notification failed (" + std::string(NameOf(notice.Kind)) +
                       "): " + FProgram + ": " + reason);
  }

  void OnTerminate() override { FQueue->Close(); }

  const bool FIsFirst;
  const std::string FProgram;
  const std::shared_ptr<TQueue> FQueue;
};

TNotifier::TNotifier(const std::string& program) : FQueue(std::make_shared<TQueue>()) {
  if (!program.starts_with('/')) {
    if (!program.empty()) {
      PrintLine("VELLUMARK_GUARDIAN_NOTIFY: \"" + program +
                "\" is no absolute path; nobody is notified");
    }
    FQueue->Close();
    return;
  }
  for (std::size_t number = 1; number <= kPrograms; ++number) {
    FThreads.push_back(std::make_unique<TTellingThread>(number, program, FQueue));
    FThreads.back()->Start();
  }
}

TNotifier::~TNotifier() {
  constexpr std::chrono::milliseconds kGrace{100};
  FQueue->Close();
  for (auto& thread : FThreads) TThread::EndOrLeaveBehind(std::move(thread), kGrace);
}

void TNotifier::Tell(TNoticeKind kind, std::string_view text, std::string_view status) noexcept
    try {
  FQueue->Add({kind, std::string(text), std::string(status)});
} catch (...) {
  FQueue->CountDropped();
}

std::vector<std::string> TNotifier::TakeProblems() { return FQueue->TakeProblems(); }

}  // namespace guardian
