#include "guardian/DaemonControl.h"

#include <utility>

#include "common/Texts.h"

namespace guardian {
namespace {

constexpr int kStartTimeoutSec = 30;
constexpr int kEndTimeoutSec = 20;
// One command that floods must not push everything else out of the log.
constexpr std::size_t kLoggedOutputBytes = 16'384;

}  // namespace

std::string KillCommand(const std::string& pid, std::int32_t attempt) {
  constexpr std::int32_t kFirstAlternating = 11;
  const bool even = attempt % 2 == 0;
  if (!pid.empty() && (attempt < kFirstAlternating || even)) return "kill -9 " + pid;
  const std::uint32_t half = (static_cast<std::uint32_t>(attempt) + 1) >> 1U;
  return half % 2 == 1 ? "killall -9 VellumarkCL" : "killall VellumarkCL";
}

TDaemonControl::TDaemonControl(TShell shell, std::function<std::string()> daemonPath,
                               TDaemonProcess& process, TActivityLog& log, TClock& clock)
    : FShell(std::move(shell)),
      FDaemonPath(std::move(daemonPath)),
      FProcess(process),
      FLog(log),
      FClock(clock) {}

bool TDaemonControl::StartDaemon() {
  const std::string path = FDaemonPath();
  FLog.AddDetailEntry("Attempting to start daemon in " + HtmlEscape(path));
  FLog.AddInfoEntry(1, 16, "Starting service/daemon in " + path, TEventKind::Start);
  Execute(TDaemonAction::Start, FDaemonPath() + " start", kStartTimeoutSec);
  FProcess.ForgetCheck();
  return true;
}

void TDaemonControl::StopDaemon() {
  FLog.AddDetailEntry("Trying to stop the service.");
  FLog.AddInfoEntry(1, 16, "Trying to stop the service normally.", TEventKind::Stop);
  Execute(TDaemonAction::Stop, FDaemonPath() + " stop", kEndTimeoutSec);
}

void TDaemonControl::TerminateDaemon() {
  Announce(TEventKind::Terminate, "Trying to terminate the service.");
  const std::string pid = FProcess.Pid();
  if (pid.empty()) {
    FLog.AddDetailEntry("No PID known to terminate");
    return;
  }
  Execute(TDaemonAction::Terminate, "kill " + pid, kEndTimeoutSec);
}

void TDaemonControl::KillDaemon(std::int32_t attempt) {
  Announce(TEventKind::Kill, "Trying to kill the service.");
  while (true) {
    const std::string pid = FProcess.Pid();
    const std::string output =
        Execute(TDaemonAction::Kill, KillCommand(pid, attempt), kEndTimeoutSec);
    const bool gone = ToUpper(output).find("NO SUCH") != std::string::npos;
    if (pid.empty() || !gone) return;
    FProcess.ForgetPid();
  }
}

void TDaemonControl::Announce(TEventKind action, const std::string& text) {
  FLog.AddDetailEntry(text);
  FLog.AddInfoEntry(1, 16, text, action);
}

std::string TDaemonControl::Execute(TDaemonAction action, const std::string& commandLine,
                                    int timeoutSec) {
  FTickThread.Check();
  TCommandTally& tally = FTallies.at(static_cast<std::size_t>(action));
  ++tally.Total;
  tally.LastAt = FClock.SteadyNow();
  std::string output = FShell(commandLine, timeoutSec);
  FLog.AddDetailEntry("Executed " + HtmlEscape(commandLine) +
                      ", Result: " + HtmlEscape(Clipped(output, kLoggedOutputBytes)));
  return output;
}

}  // namespace guardian
