#include "guardian/DaemonPath.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

#include "common/Clock.h"
#include "common/Console.h"
#include "common/DiagnosticMessage.h"
#include "common/Exceptions.h"
#include "common/Mutex.h"

namespace guardian {
namespace {

// Where to look for the daemon.
struct TPlaces {
  std::string Own;
  std::string Beside;
  std::string FromConf;
};

const std::string& Choose(const TPlaces& places, bool besideExists) {
  const bool isBeside = besideExists && places.Beside != places.Own;
  return isBeside || places.FromConf.empty() ? places.Beside : places.FromConf;
}

TDaemonPathSeen Look(const TPlaces& places, const TFileSystemView& files) {
  const bool besideExists = files.FileExists(places.Beside);
  const std::string& path = Choose(places, besideExists);
  return {path, path == places.Beside ? besideExists : files.FileExists(path)};
}

}  // namespace

// Looks whenever it is asked, and publishes path and existence together. Uses nothing but itself
// and the file system, because it may be left behind.
class TDaemonPath::TLookThread final : public TThread {
 public:
  TLookThread(const TPlaces& places, const TFileSystemView& files)
      : TThread("DaemonPath"), FFiles(files), FPlaces(places), FSeen({places.Beside, false}) {}
  ~TLookThread() override { Join(); }

  void SetPathFromConf(std::string path) KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    FPlaces.FromConf = std::move(path);
  }

  // What the file system says now; nothing when it does not answer within five seconds.
  std::optional<TDaemonPathSeen> Ask() KZ_EXCLUDES(FLock) {
    constexpr std::int64_t kLongestMs = 5'000;
    const TMutexLock lock(FLock);
    if (!WaitForAnswerLocked(++FAsked, kLongestMs)) return std::nullopt;
    return FSeen;
  }

  // The same, or what it said last when it does not answer at once. Only the first caller who meets
  // a look that stands still waits for it.
  TDaemonPathSeen AskBriefly() KZ_EXCLUDES(FLock) {
    constexpr std::int64_t kLongestMs = 100;
    const TMutexLock lock(FLock);
    const std::int64_t asked = ++FAsked;
    if (FStandsStill) return FSeen;
    FStandsStill = !WaitForAnswerLocked(asked, kLongestMs);
    return FSeen;
  }

 private:
  void Execute() override {
    constexpr std::chrono::milliseconds kPauseAfterFailure{100};
    while (!Terminated()) {
      const bool done = Guarded("Look for the daemon", SystemClock(), [this] { AnswerNext(); });
      if (!done) SystemClock().Sleep(kPauseAfterFailure);
    }
  }

  void AnswerNext() {
    if (const auto task = WaitUntilAsked()) Publish(task->first, Look(task->second, FFiles));
  }

  bool WaitForAnswerLocked(std::int64_t asked, std::int64_t longestMs) KZ_REQUIRES(FLock) {
    FChanged.NotifyAll();
    return SystemClock().WaitUntil(FLock, FChanged, SystemTickCount() + longestMs,
                                   [this, asked]()
                                       KZ_REQUIRES(FLock) { return FAnswered >= asked; });
  }

  // The number of the last question and where to look; nothing when the thread is to end.
  std::optional<std::pair<std::int64_t, TPlaces>> WaitUntilAsked() KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    while (!Terminated() && FAnswered == FAsked) FChanged.Wait(FLock);
    if (Terminated()) return std::nullopt;
    return std::pair(FAsked, FPlaces);
  }

  void Publish(std::int64_t answered, TDaemonPathSeen seen) KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    FSeen = std::move(seen);
    FAnswered = answered;
    FStandsStill = false;
    FChanged.NotifyAll();
  }

  void OnTerminate() override KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    FChanged.NotifyAll();
  }

  const TFileSystemView& FFiles;
  TMutex FLock;
  TCondition FChanged;
  TPlaces FPlaces KZ_GUARDED_BY(FLock);
  TDaemonPathSeen FSeen KZ_GUARDED_BY(FLock);
  // Numbers of questions.
  std::int64_t FAsked KZ_GUARDED_BY(FLock) = 0;
  std::int64_t FAnswered KZ_GUARDED_BY(FLock) = 0;
  bool FStandsStill KZ_GUARDED_BY(FLock) = false;
};

TDaemonPath::TDaemonPath(std::string ownPath, std::string confDir, const TFileSystemView& files)
    : FOwnPath(std::move(ownPath)),
      FConfFile(std::move(confDir) + "/VellumarkCL.conf"),
      FFiles(files),
      FLooks(
          std::make_unique<TLookThread>(TPlaces{FOwnPath, DaemonPathBeside(FOwnPath), {}}, files)) {
  FLooks->Start();
}

TDaemonPath::~TDaemonPath() {
  constexpr std::chrono::milliseconds kGrace{100};
  TThread::EndOrLeaveBehind(std::move(FLooks), kGrace);
}

std::string TDaemonPath::Get() {
  const std::string beside = DaemonPathBeside(FOwnPath);
  const std::optional<TDaemonPathSeen> seen = FLooks->Ask();
  if (!seen) throw SoftException("The file system of the daemon does not answer: " + beside);
  const bool besideExists = seen->Path == beside && seen->Exists;
  // The daemon's path would be the Guardian's own when the Guardian's file was renamed.
  if (!besideExists || beside == FOwnPath) ReadConf();
  std::string path = Choose({FOwnPath, beside, FPathFromConf}, besideExists);
  // Each Guardian would start the next one.
  if (path == FOwnPath) {
    throw SoftException("The daemon's path is the Guardian's own: " + path);
  }
  return path;
}

TDaemonPathSeen TDaemonPath::Seen() const { return FLooks->AskBriefly(); }

void TDaemonPath::ReadConf() {
  if (FConfRead) return;
  if (FFiles.FileExists(FConfFile)) {
    PrintLine("Reading config file " + FConfFile);
    for (std::string& path : DaemonPathsInConf(TextOfConf())) {
      FPathFromConf = std::move(path);
      PrintLine("Daemon path from conf: " + FPathFromConf);
    }
  }
  FConfRead = true;
  FLooks->SetPathFromConf(FPathFromConf);
}

// A file that cannot be read now is an expected failure: the next call tries again.
std::string TDaemonPath::TextOfConf() const {
  try {
    return FFiles.ReadText(FConfFile);
  } catch (const ESystemError& error) {
    throw SoftException(error.Message());
  }
}

}  // namespace guardian
