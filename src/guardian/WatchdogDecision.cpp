#include "guardian/WatchdogDecision.h"

#include <algorithm>
#include <utility>

#include "common/Texts.h"

namespace guardian {
namespace {

constexpr std::int32_t kFailuresBeforeRestart = 6;
constexpr std::int32_t kLastTerminateAttempt = 4;
constexpr double kAskedForPulseMinutes = 1.2;

// How the daemon is ended at this restart attempt.
TStepKind EndingOf(std::int32_t attempt) {
  if (attempt == 1) return TStepKind::StopDaemon;
  return attempt <= kLastTerminateAttempt ? TStepKind::TerminateDaemon : TStepKind::KillDaemon;
}

const char* VerbOf(TStepKind ending) {
  if (ending == TStepKind::StopDaemon) return "stops";
  return ending == TStepKind::TerminateDaemon ? "terminates" : "kills";
}

// The judgement of one round; each function adds its steps.
class TRound {
 public:
  TRound(const TObservation& seen, TWatchdogState& state) : FSeen(seen), FState(state) {}

  std::vector<TStep> Decide() {
    ShowStatus();
    LogStatus();
    WatchPulse();
    if (!FSeen.ServiceKnown) {
      SayThatNothingIsKnown();
      return std::move(FSteps);
    }
    if (FSeen.ServiceOK) {
      CountFailures();
    } else {
      StartDeadDaemon();
    }
    Escalate();
    ResetCounters();
    return std::move(FSteps);
  }

 private:
  bool AllOK() const { return FSeen.MutexOK && FSeen.PipeOK && FSeen.ServiceOK; }

  const char* Service() const { return FSeen.ServiceKnown ? YesNo(FSeen.ServiceOK) : "?"; }

  void Log(std::string text) { FSteps.push_back({TStepKind::Log, std::move(text)}); }
  void Do(TStepKind kind) { FSteps.push_back({kind, {}}); }
  void Entry(TStepKind kind, int category, int event, std::string text) {
    FSteps.push_back({kind, std::move(text), category, event});
  }
  void Send(TSyncCommMessages command) {
    FSteps.push_back({TStepKind::SendCommand, {}, 0, 0, command});
  }

  std::string Shown(TDateTime steady) const {
    return DateTimeToStr(FSeen.WallNow - (FSeen.Now - steady));
  }
  bool PulseOlderThan(double minutes) const {
    return FState.LastPulseAt < FSeen.Now - minutes * kMinute;
  }

  void ShowStatus() {
    FSteps.push_back({TStepKind::StatusLine,
                      "Status at " + Shown(FSeen.Now) + ": MutexOK=" + YesNo(FSeen.MutexOK) +
                          ", PipeStatusOK=" + YesNo(FSeen.PipeOK) + ", ServiceOK=" + Service() +
                          ", PID=" + FSeen.Pid});
  }

  void LogStatus() {
    const bool lately = FState.LastStatusLogAt >= FSeen.Now - kMinute;
    if (lately && AllOK()) return;
    Log(std::string("Status: Mutex=") + YesNo(FSeen.MutexOK) + " Service=" + Service() +
        " Pipe=" + YesNo(FSeen.PipeOK) + " Pulse: " + std::to_string(FSeen.Pulse));
    FState.LastStatusLogAt = FSeen.MutexOK && FSeen.ServiceOK ? FSeen.Now : 0;
  }

  void WatchPulse() {
    if (!AllOK()) {
      FState.LastPulseAt = FSeen.Now;  // No pulse is expected.
      return;
    }
    if (FSeen.Pulse != FState.LastSeenPulse) {
      FState.LastSeenPulse = FSeen.Pulse;
      FState.LastPulseAt = FSeen.Now;
      Log("Pulse change detected, FLastPulseAt now:" + Shown(FState.LastPulseAt));
      return;
    }
    JudgeStillPulse();
  }

  // The shortest time is tested first, so the two longer ones never act: a still pulse makes the
  // Guardian ask, never restart. This is deliberate and stays.
  void JudgeStillPulse() {
    if (PulseOlderThan(kAskedForPulseMinutes)) {
      Log("Pulse change over 1.2 minutes ago, last pulse was at:" + Shown(FState.LastPulseAt));
      Send(TSyncCommMessages::msgEnquireStatus);
    } else if (PulseOlderThan(1.5)) {
      const std::string text =
          "Pulse change over 1.5 minutes ago, last pulse was at:" + Shown(FState.LastPulseAt);
      Log(text);
      Log(text);
      Entry(TStepKind::WarningEntry, 5, 2, text);
      Send(TSyncCommMessages::msgEnquireStatus);
    } else if (PulseOlderThan(2)) {
      Log("Pulse stopped, need to restart service. Last Pulse was at " + Shown(FState.LastPulseAt));
      if (FSeen.PipeJustConnected) {
        Log("OK we delay it because the pipe was just connected");
        return;
      }
      Entry(TStepKind::ErrorEntry, 3, 1, "Pulse stopped, need to restart service");
      FRestartNeeded = true;
    }
  }

  void SayThatNothingIsKnown() {
    Entry(TStepKind::ErrorEntry, 1, 16,
          "Process list cannot be read - not known whether the service runs.");
  }

  void StartDeadDaemon() {
    Entry(TStepKind::ErrorEntry, 1, 16, "Service not running - need to start service.");
    Do(TStepKind::StartDaemon);
  }

  void CountFailures() {
    if (!FSeen.MutexPathKnown) return;
    if (!FSeen.MutexOK) {
      Send(TSyncCommMessages::msgStartTimer);
      Entry(TStepKind::ErrorEntry, 1, 16, "Mutex not OK - start timer command sent to service.");
      ++FState.MutexFailures;
      Log("Mutex failure counter = " + std::to_string(FState.MutexFailures));
      if (FState.MutexFailures >= kFailuresBeforeRestart) FRestartNeeded = true;
    }
    if (!FSeen.PipeOK) {
      ++FState.PipeFailures;
      Log("Pipe failure counter = " + std::to_string(FState.PipeFailures));
      if (FState.PipeFailures >= kFailuresBeforeRestart) {
        Entry(TStepKind::ErrorEntry, 1, 16, "Pipe not OK - need to restart service.");
        FRestartNeeded = true;
      }
    }
  }

  void Escalate() {
    if (!FRestartNeeded) {
      FState.RestartAttempts = 0;
      return;
    }
    ++FState.RestartAttempts;
    Log("Need to restart service, attempt counter = " + std::to_string(FState.RestartAttempts));
    if (FState.RestartAttempts == 1) {
      Entry(TStepKind::ErrorEntry, 3, 1, "Need to restart Vellumark_Service");
    }
    Do(EndingOf(FState.RestartAttempts));
  }

  void ResetCounters() {
    if (FSeen.PipeOK) FState.PipeFailures = 0;
    if (FSeen.MutexOK) FState.MutexFailures = 0;
  }

  const TObservation& FSeen;
  TWatchdogState& FState;
  std::vector<TStep> FSteps;
  bool FRestartNeeded = false;
};

}  // namespace

bool NeedsFreshProcessCheck(bool mutexOK, bool pipeOK, bool lastServiceOK) {
  return !(mutexOK && pipeOK && lastServiceOK);
}

std::string DescribeNext(const TObservation& seen, const TWatchdogState& state) {
  if (!seen.ServiceKnown) return "Nothing, until the process list can be read.";
  if (!seen.ServiceOK) return "The Guardian starts the daemon at each look until it runs.";
  if (seen.MutexOK && seen.PipeOK) {
    if (state.LastPulseAt >= seen.Now - kAskedForPulseMinutes * kMinute) return "Nothing to do.";
    return "The Guardian asks the daemon for its status; it never restarts it for a still pulse.";
  }
  if (!seen.MutexPathKnown) return "Nothing: the daemon has not named its mutex directory.";
  const std::int32_t failures = std::max(state.MutexFailures, state.PipeFailures);
  if (failures < kFailuresBeforeRestart) {
    return "Failure " + std::to_string(failures) + " of " + std::to_string(kFailuresBeforeRestart) +
           "; at the last one the Guardian stops the daemon.";
  }
  return "Attempt " + std::to_string(state.RestartAttempts) +
         " to restart was made; if the next look fails, the Guardian " +
         VerbOf(EndingOf(state.RestartAttempts + 1)) + " the daemon.";
}

std::vector<TStep> DecideRound(const TObservation& seen, TWatchdogState& state) {
  return TRound(seen, state).Decide();
}

}  // namespace guardian
