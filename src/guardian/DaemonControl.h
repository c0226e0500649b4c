#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include "common/Clock.h"

#include "guardian/DaemonProcess.h"
#include "guardian/process/ProcessListing.h"
#include "webstatus/ActivityLog.h"
#include "webstatus/GuardianControl.h"

namespace guardian {

// The command that ends a hung daemon at this restart attempt: "kill -9" while the process id is
// known, now and then or without one "killall", plain and forced in turns.
[[nodiscard]] std::string KillCommand(const std::string& pid, std::int32_t attempt);

// The commands of one kind that were run.
struct TCommandTally {
  std::int64_t Total = 0;
  TDateTime LastAt = 0;  // An instant of TClock::SteadyNow; zero for never.
};
using TCommandTallies = std::array<TCommandTally, kDaemonActions>;  // By TDaemonAction.

// The actions upon the daemon's process. Each runs shell commands and logs what they printed; none
// judges whether it helped, which is for the next look at the process list.
// Owner: the guardian service. Threads: the timer thread. Blocks for as long as its commands take.
// Lifetime: everything it is given outlives it.
class TDaemonControl {
 public:
  // The daemon's path is asked for afresh at each use; the path function may throw, which ends the
  // action.
  TDaemonControl(TShell shell, std::function<std::string()> daemonPath, TDaemonProcess& process,
                 TActivityLog& log, TClock& clock);
  TDaemonControl(const TDaemonControl&) = delete;
  TDaemonControl& operator=(const TDaemonControl&) = delete;

  // True once the command was run, at most 30 seconds.
  bool StartDaemon();

  // At most 20 seconds each command.
  void StopDaemon();
  void TerminateDaemon();
  void KillDaemon(std::int32_t attempt);

  [[nodiscard]] const TCommandTallies& Tallies() const noexcept { return FTallies; }

 private:
  void Announce(const std::string& text);
  std::string Execute(TDaemonAction action, const std::string& commandLine, int timeoutSec);

  const TShell FShell;
  const std::function<std::string()> FDaemonPath;
  TDaemonProcess& FProcess;
  TActivityLog& FLog;
  TClock& FClock;
  TCommandTallies FTallies;
};

}  // namespace guardian
