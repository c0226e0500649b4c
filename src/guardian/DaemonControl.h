#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include "common/Clock.h"
#include "common/ThreadChecker.h"
#include "guardian/DaemonProcess.h"
#include "guardian/process/ProcessListing.h"
#include "webstatus/ActivityLog.h"
#include "webstatus/GuardianControl.h"

namespace guardian {

// The command that ends a hung daemon at this restart attempt: "kill -9" while the process id is
// known; without one, and at every other attempt from the eleventh on, "killall", plain and forced
// in turns.
[[nodiscard]] std::string KillCommand(const std::string& pid, std::int32_t attempt);

// How often one kind of command was run.
struct TCommandTally {
  std::int64_t Total = 0;
  TDateTime LastAt = 0;  // An instant of TClock::SteadyNow; zero means never.
};
using TCommandTallies = std::array<TCommandTally, kDaemonActions>;  // By TDaemonAction.

// The actions upon the daemon's process. Each runs shell commands and logs what they printed. None
// judges whether it helped: the next look at the process list does.
// Owner: the guardian service.
// Threads: the timer thread; each action blocks for as long as its commands take.
// Lifetime: everything it is given outlives it.
class TDaemonControl {
 public:
  // The path function is called at each use of the daemon's path. What it throws ends the action.
  TDaemonControl(TShell shell, std::function<std::string()> daemonPath, TDaemonProcess& process,
                 TActivityLog& log, TClock& clock);
  TDaemonControl(const TDaemonControl&) = delete;
  TDaemonControl& operator=(const TDaemonControl&) = delete;

  // Runs the command for at most 30 seconds, then returns true, whether or not it succeeded.
  bool StartDaemon();

  // Each command runs for at most 20 seconds.
  void StopDaemon();
  void TerminateDaemon();
  void KillDaemon(std::int32_t attempt);

  [[nodiscard]] const TCommandTallies& Tallies() const noexcept { return FTallies; }

 private:
  void Announce(TEventKind action, const std::string& text);
  std::string Execute(TDaemonAction action, const std::string& commandLine, int timeoutSec);

  const TShell FShell;
  const std::function<std::string()> FDaemonPath;
  TDaemonProcess& FProcess;
  TActivityLog& FLog;
  TClock& FClock;
  TThreadChecker FTickThread;
  TCommandTallies FTallies;
};

}  // namespace guardian
