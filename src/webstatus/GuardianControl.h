#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "common/Clock.h"
#include "common/SharedText.h"

namespace guardian {

// What the watchdog does to the daemon.
enum class TDaemonAction { Start, Stop, Terminate, Kill };
inline constexpr std::size_t kDaemonActions = 4;

// How often one kind of command was run, on request or by the watchdog's own decision.
struct TActionTally {
  std::int64_t Total = 0;
  std::optional<double> LastAgeSec;
};

// What the watchdog saw and counted up to its last round. Ages are in seconds, measured on steady
// time.
struct TWatchdogReading {
  bool MutexOK = false;
  bool PipeOK = false;
  bool ServiceOK = false;
  std::optional<double> CheckAgeSec;  // Of the last round; none before the first.
  std::string Pid;                    // Of the daemon; empty for none.
  std::int64_t Pulse = 0;
  double PulseAgeSec = 0;  // Since it changed last, or since none is expected.
  std::int64_t Rounds = 0;
  std::int64_t Restarts = 0;  // Times that a restart was begun with the stop command.
  std::int32_t RestartAttempts = 0;
  std::int32_t MutexFailures = 0;
  std::int32_t PipeFailures = 0;
  std::array<TActionTally, kDaemonActions> Actions;  // By TDaemonAction.
  double UptimeSec = 0;
};

// What the pages show of the guardian service, taken at one moment.
// Texts from outside are raw here; the pages escape them. The logs and the status text are HTML.
struct TGuardianStatus {
  TSharedText::TText StatusText;
  std::string DaemonPath;
  bool DaemonPathExists = false;
  std::string MutexPath;
  std::string DaemonTempPath;
  bool GotPaths = false;
  bool GetPathsError = false;
  TSharedText::TText ProcessList;
  TDateTime ProcessListTime = 0;  // Local wall time; zero when none was taken.
  TSharedText::TText InitialOutput;
  TSharedText::TText ActivityLog;
  TSharedText::TText DetailedLog;
  TWatchdogReading Watchdog{};
};

// The guardian service as the pages see it.
// Threads: the HTTP threads call everything, several at once; nothing blocks, and no lock is
// shared with the watchdog's tick.
class TGuardianControl {
 public:
  virtual ~TGuardianControl() = default;

  [[nodiscard]] virtual TGuardianStatus Status() const = 0;

  // Each leaves a request that the watchdog carries out about a second later.
  virtual void RequestStart() = 0;
  virtual void RequestStop() = 0;
  virtual void RequestTerminate() = 0;
  virtual void RequestKill() = 0;
};

}  // namespace guardian
