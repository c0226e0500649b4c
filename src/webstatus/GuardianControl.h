#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "common/Clock.h"
#include "common/SharedText.h"
#include "webstatus/History.h"

namespace guardian {

// The commands that the watchdog runs on the daemon.
enum class TDaemonAction { Start, Stop, Terminate, Kill };
inline constexpr std::size_t kDaemonActions = 4;

// How often one kind of command was run, whether a page requested it or the watchdog decided it.
struct TActionTally {
  std::int64_t Total = 0;
  std::optional<double> LastAgeSec;
};

// What the watchdog saw and counted up to its last round. Ages are in seconds of steady time:
// CheckAgeSec is the time since the last round, and empty before the first; PulseAgeSec is the time
// since the pulse changed last, or since no pulse is expected. Pid is the daemon's, and empty when
// it does not run. Restarts counts the restarts that were begun with the stop command. Actions is
// indexed by TDaemonAction. HoldLeftSec is empty when there is no hold. Next says in a sentence
// what the watchdog will do without a hold.
struct TWatchdogReading {
  bool MutexOK = false;
  bool PipeOK = false;
  bool ServiceOK = false;
  std::optional<double> CheckAgeSec;
  std::string Pid;
  std::int64_t Pulse = 0;
  double PulseAgeSec = 0;
  std::int64_t Rounds = 0;
  std::int64_t Restarts = 0;
  std::int32_t RestartAttempts = 0;
  std::int32_t MutexFailures = 0;
  std::int32_t PipeFailures = 0;
  std::array<TActionTally, kDaemonActions> Actions;
  double UptimeSec = 0;
  std::optional<double> HoldLeftSec;
  std::string Next{};
};

// What the pages show of the guardian service, taken at one moment.
// The logs and the status text are HTML. All other texts are raw; the pages escape them.
// ProcessListTime is local wall time, and zero before the first process list.
struct TGuardianStatus {
  TSharedText::TText StatusText;
  std::string DaemonPath;
  bool DaemonPathExists = false;
  std::string MutexPath;
  std::string DaemonTempPath;
  bool GotPaths = false;
  bool GetPathsError = false;
  TSharedText::TText ProcessList;
  TDateTime ProcessListTime = 0;
  TSharedText::TText InitialOutput;
  TTextPieces ActivityLog;
  TTextPieces DetailedLog;
  TWatchdogReading Watchdog{};
  std::shared_ptr<const THistory> History{};
};

// The guardian service as the pages see it.
// Owner: the guardian service implements it.
// Threads: the HTTP threads call everything, several at once. Nothing blocks: the locks that the
// watchdog's tick takes too are held for one pointer copy only.
// Lifetime: outlives the web status server.
class TGuardianControl {
 public:
  virtual ~TGuardianControl() = default;

  [[nodiscard]] virtual TGuardianStatus Status() const = 0;

  // Each notes a request, which the watchdog carries out about a second later.
  virtual void RequestStart() = 0;
  virtual void RequestStop() = 0;
  virtual void RequestTerminate() = 0;
  virtual void RequestKill() = 0;

  // From now on, and for that long, the watchdog looks and does not act; requests are carried out.
  // Replaces an earlier hold. Release ends it.
  virtual void Hold(std::chrono::minutes length) = 0;
  virtual void Release() = 0;
};

}  // namespace guardian
