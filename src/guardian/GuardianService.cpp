#include "guardian/GuardianService.h"

#include <cassert>
#include <chrono>
#include <exception>
#include <string_view>
#include <utility>

#include "common/Console.h"
#include "common/DiagnosticMessage.h"
#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "common/Settings.h"
#include "common/Texts.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exception_report.h"
#include "webstatus/HealthProblems.h"

namespace guardian {
namespace {

constexpr std::chrono::milliseconds kTickInterval{10'000};
constexpr std::chrono::milliseconds kRequestInterval{1'000};

// The checkpoint of the timer's thread between two ticks. A tick that failed passes it only when
// its report, which shows the place of the failure, has been written.
constexpr std::string_view kTimerWaits = "GuardianTimer:Wait";

// Whether the step starts or ends the daemon.
bool IsAction(TStepKind kind) {
  return kind == TStepKind::StartDaemon || kind == TStepKind::StopDaemon ||
         kind == TStepKind::TerminateDaemon || kind == TStepKind::KillDaemon;
}

}  // namespace

TGuardianService::TGuardianService(TGuardianSurroundings surroundings)
    : FSurroundings(std::move(surroundings)),
      FHistory(std::make_shared<THistory>(*FSurroundings.Clock)),
      FHold(*FSurroundings.Clock),
      FActivityLog([this](std::string_view message,
                          TSystemLogKind kind) { WriteToSystemLog(message, kind); },
                   *FSurroundings.Clock, FHistory.get()),
      FDaemonPath(FSurroundings.OwnPath, FSurroundings.ConfDir, *FSurroundings.Files),
      FDaemonProcess(
          [this](const std::string& commandLine, int timeoutSec) {
            TShellOutcome outcome = RunShell(commandLine, timeoutSec);
            if (outcome.CouldNotRun) throw SoftException(outcome.Problem);
            return std::move(outcome.Output);
          },
          FSurroundings.IsOwnProcess, *FSurroundings.Clock),
      FControl([this](const std::string& commandLine,
                      int timeoutSec) { return RunShell(commandLine, timeoutSec).Output; },
               [this] { return GetDaemonPath(); }, FDaemonProcess, FActivityLog,
               *FSurroundings.Clock),
      FScheduler(FSurroundings.MakeScheduler([this](std::string_view line) { AddToLog(line); })),
      FTimer(
          "GuardianTimer", kTickInterval,
          [this] {
            Tick();
            KZCP::Checkpoint(kTimerWaits);
          },
          [this](const std::exception_ptr& error) {
            ReportFailure(error);
            KZCP::Checkpoint(kTimerWaits);
          },
          *FSurroundings.Clock) {}

TGuardianService::~TGuardianService() = default;

void TGuardianService::Start() {
  assert(IsMainThread());
  PrintLine("Vellumark Guardian (Silent Mode)");
  // Has a guard of its own, so that a daemon that cannot be asked is watched all the same.
  try {
    RequestDaemonPaths();
  } catch (...) {
    AddToLog("Exception starting guardian: " + HtmlEscape(CurrentExceptionMessage()));
  }
  StartTimer();
}

void TGuardianService::StartTimer() {
  assert(IsMainThread());
  if (FWatches) return;
  try {
    FWatchdog.LastPulseAt = FSurroundings.Clock->SteadyNow();
    FStartedAt = FWatchdog.LastPulseAt;
    FTickThread.Detach();
    FTimer.SetInterval(kTickInterval);
    FTimer.SetEnabled(true);
    FWatches = true;
    AddToLog("Guardian started, v1.50");
    FActivityLog.AddInfoEntry(1, 16, "Guardian Service Started");
  } catch (...) {
    AddToLog("Exception starting guardian: " + HtmlEscape(CurrentExceptionMessage()));
  }
}

void TGuardianService::Stop() {
  assert(IsMainThread());
  FWatches = false;
  FActivityLog.AddInfoEntry(1, 17, "Guardian Service Stopped");
  try {
    FTimer.Stop();
  } catch (...) {
    AddToLog("Exception stopping guardian: " + HtmlEscape(CurrentExceptionMessage()));
  }
  AddToLog("Guardian stopped, v1.50");
}

void TGuardianService::Pause() {
  assert(IsMainThread());
  FTimer.SetEnabled(false);
  AddToLog("Guardian Service PAUSED");
  FActivityLog.AddInfoEntry(1, 17, "Guardian Service PAUSED");
}

bool TGuardianService::Continue() {
  assert(IsMainThread());
  FTimer.SetEnabled(true);
  AddToLog("Guardian Service CONTINUED");
  FActivityLog.AddInfoEntry(1, 16, "Guardian Service CONTINUED");
  return true;
}

void TGuardianService::Tick() {
  KZCP::Checkpoint("Tick.Requests");
  FTimer.SetInterval(kTickInterval);
  DoGuarded([this] { AnnounceHold(); });
  CarryOutRequests();
  CheckStatus();
}

void TGuardianService::Hold(std::chrono::minutes length) {
  FHold.Begin(length);
  FTimer.SetInterval(kRequestInterval);
}

void TGuardianService::Release() {
  FHold.Release();
  FTimer.SetInterval(kRequestInterval);
}

// One line for each hold that has begun, been replaced or come to its end since the last tick.
void TGuardianService::AnnounceHold() {
  FTickThread.Check();
  const std::int64_t end = FHold.End();
  if (std::exchange(FAnnouncedHold, end) == end) return;
  if (end != 0) {
    const std::string text = "On hold until " + DateTimeToStr(FHold.WallEnd()) +
                             ": the service is watched, but neither started nor ended.";
    FActivityLog.AddInfoEntry(1, 16, text, TEventKind::Hold);
    Notify(TNoticeKind::Held, text);
    return;
  }
  constexpr std::string_view kText =
      "The hold is over, the service is started and ended as needed.";
  FActivityLog.AddInfoEntry(1, 16, kText, TEventKind::Release);
  Notify(TNoticeKind::Released, kText);
}

void TGuardianService::CarryOutRequests() {
  FTickThread.Check();
  const auto carryOut = [this](std::atomic<bool>& request, const std::function<void()>& action) {
    if (request.exchange(false)) DoGuarded(action);
  };
  carryOut(FStartRequested, [this] { FControl.StartDaemon(); });
  carryOut(FStopRequested, [this] { FControl.StopDaemon(); });
  carryOut(FTerminateRequested, [this] { FControl.TerminateDaemon(); });
  carryOut(FKillRequested, [this] { FControl.KillDaemon(FWatchdog.RestartAttempts); });
}

void TGuardianService::CheckStatus() {
  FTickThread.Check();
  const TObservation seen = Observe();
  // The end of the process cuts commands and connections short, so nothing can be judged by them.
  if (FSurroundings.Stopping.IsCancelled()) return;
  const std::vector<TStep> steps = DecideRound(seen, FWatchdog);
  // Nothing that is seen during a hold counts, so that its end is not answered with a kill.
  if (FHold.End() != 0) FWatchdog.ForgetFailures();
  KZCP::Checkpoint("Tick.Act");
  ++FRounds;
  const double pulseAgeSec = (seen.Now - FWatchdog.LastPulseAt) / kSecond;
  DoGuarded([&] { FHistory->AddRound({seen.MutexOK, seen.PipeOK, seen.ServiceOK, pulseAgeSec}); });
  // Recorded before the steps too, because one of them may take half a minute, or throw.
  RecordRound(seen);
  for (const TStep& step : steps) DoGuarded([&] { CarryOut(step); });
  RecordRound(seen);
  DoGuarded([this] { TellRecovery(); });
  DoGuarded([this] { LogNotifyProblems(); });
}

// Returns whether the step came to its end.
bool TGuardianService::DoGuarded(const std::function<void()>& step) {
  if (FSurroundings.Stopping.IsCancelled()) return false;
  try {
    step();
    return true;
  } catch (...) {
    ReportFailure(std::current_exception());
    return false;
  }
}

// An expected failure is one line in the log; any other leaves a report too.
void TGuardianService::ReportFailure(const std::exception_ptr& error) noexcept {
  Guarded("Watchdog log", *FSurroundings.Clock,
          [&] { AddToLog("Exception in watchdog tick: " + HtmlEscape(MessageOf(error))); });
  HandleException(error, TLogToFiles::Yes, "Watchdog tick");
}

void TGuardianService::RecordRound(const TObservation& seen) {
  FLastRound.Set({seen, FWatchdog, FControl.Tallies(), FRounds, FRestarts});
}

TObservation TGuardianService::Observe() {
  TObservation seen;
  const bool looked = DoGuarded([&] {
    KZCP::Checkpoint("Tick.Mutex");
    seen.MutexOK = FScheduler->IsSchedulerRunning();
    KZCP::Checkpoint("Tick.Pipe");
    const TPipeCheck pipe = FScheduler->CheckSchedulerPipe();
    seen.PipeOK = pipe.Ok;
    seen.PipeJustConnected = pipe.JustConnected;
  });
  KZCP::Checkpoint("Tick.Process");
  LookAtProcess(seen);
  // A look that failed is no failure of the daemon.
  seen.MutexPathKnown = looked && FMutexPathReceived && !FMutexPathMissing;
  seen.Pulse = FScheduler->Pulse();
  seen.Pid = FDaemonProcess.Pid();
  // Taken last: the checks above may have taken seconds.
  seen.Now = FSurroundings.Clock->SteadyNow();
  seen.WallNow = FSurroundings.Clock->Now();
  return seen;
}

// Without a process list the daemon is neither dead nor alive; the next round looks again.
void TGuardianService::LookAtProcess(TObservation& seen) {
  const bool fresh = NeedsFreshProcessCheck(seen.MutexOK, seen.PipeOK, FLastServiceOK);
  try {
    seen.ServiceOK = IsDaemonRunning(fresh ? TProcessCheck::Force : TProcessCheck::Cached);
  } catch (const SoftException&) {
    seen.ServiceKnown = false;  // The log has the reason.
  } catch (...) {
    seen.ServiceKnown = false;
    ReportFailure(std::current_exception());
  }
  FLastServiceOK = seen.ServiceOK;
}

void TGuardianService::CarryOut(const TStep& step) {
  // A hold may also have begun since the round was judged.
  if (IsAction(step.Kind) && FHold.End() != 0) {
    AddToLog("Nothing is done: on hold until " + DateTimeToStr(FHold.WallEnd()));
    return;
  }
  switch (step.Kind) {
    case TStepKind::StatusLine:
      FStatusLine.Set(step.Text);
      AddToLog(step.Text);
      break;
    case TStepKind::Log:
      AddToLog(step.Text);
      break;
    case TStepKind::WarningEntry:
      FActivityLog.AddWarningEntry(step.Category, step.Event, step.Text, FLastSystemLogAt);
      break;
    case TStepKind::ErrorEntry:
      FActivityLog.AddErrorEntry(step.Category, step.Event, step.Text, FLastSystemLogAt);
      break;
    case TStepKind::SendCommand:
      SendPipeCommand(step.Command);
      break;
    case TStepKind::StartDaemon:
      FControl.StartDaemon();
      break;
    case TStepKind::StopDaemon:
      ++FRestarts;
      FControl.StopDaemon();
      break;
    case TStepKind::TerminateDaemon:
      FControl.TerminateDaemon();
      break;
    case TStepKind::KillDaemon:
      FControl.KillDaemon(FWatchdog.RestartAttempts);
      break;
  }
}

// Only after trouble that somebody was told of.
void TGuardianService::TellRecovery() {
  if (!FToldOfTrouble || !HealthProblems(Reading()).empty()) return;
  FToldOfTrouble = false;
  Notify(TNoticeKind::Recovered, "All checks are well again.");
}

void TGuardianService::LogNotifyProblems() {
  if (!FSurroundings.NotifyProblems) return;
  for (const std::string& line : FSurroundings.NotifyProblems()) AddToLog(HtmlEscape(line));
}

void TGuardianService::Notify(TNoticeKind kind, std::string_view text) {
  if (!FSurroundings.Notify) return;
  Guarded("Notification", *FSurroundings.Clock,
          [&] { FSurroundings.Notify(kind, text, *FStatusLine.Get()); });
}

bool TGuardianService::SendPipeCommand(TSyncCommMessages command) {
  FTickThread.Check();
  return FScheduler->SendCommand(command);
}

std::string TGuardianService::GetDaemonPath() {
  FTickThread.Check();
  return FDaemonPath.Get();
}

std::string TGuardianService::GetMutexPath() {
  return Settings().MutexDirectory.Copy() + "/" + kSchedulerMutexName;
}

void TGuardianService::RequestDaemonPaths() {
  constexpr int kHandshakeTimeoutSec = 600;
  std::string output = RunShell(GetDaemonPath() + " /PATHS", kHandshakeTimeoutSec).Output;
  const TDaemonPaths paths = ParseDaemonPaths(output);
  TSettings& settings = Settings();
  if (paths.Temp) FTempPath.Set(*paths.Temp);
  if (paths.Mutex) settings.MutexDirectory.Set(*paths.Mutex);
  if (paths.Logs) settings.LogDirectory.Set(*paths.Logs);
  const bool received = !settings.MutexDirectory.Get()->empty();
  if (!received) {
    output += "\nWARNING: Mutex Path Not Received from VellumarkCL\n";
    settings.MutexDirectory.Set(FTempPath.Copy());
  }
  SetPipeDirectory(settings.MutexDirectory.Copy());
  FMutexPathReceived = received;
  FMutexPathMissing = !received;
  PrintLine("Initial Output: " + output);
  FHandshakeOutput.Set(Clipped(output, kShownOutputBytes));
  PrintLine("");
  PrintLine("TMP=" + FTempPath.Copy());
  PrintLine("MUTEX=" + settings.MutexDirectory.Copy());
  PrintLine("LOGS=" + settings.LogDirectory.Copy());
}

void TGuardianService::Request(std::atomic<bool>& flag) {
  flag = true;
  FTimer.SetInterval(kRequestInterval);
}

// Errors and warnings come here in the tick alone, and throttled. During a hold they are expected,
// and nobody is bothered.
void TGuardianService::WriteToSystemLog(std::string_view message, TSystemLogKind kind) {
  if (kind != TSystemLogKind::Information && FHold.End() == 0) {
    FToldOfTrouble = true;
    Notify(kind == TSystemLogKind::Error ? TNoticeKind::Error : TNoticeKind::Warning, message);
  }
  if (FSurroundings.SystemLog(message, kind)) return;
  AddToLog("The system log takes no entries; the next one stands here only.");
}

TShellOutcome TGuardianService::RunShell(const std::string& commandLine, int timeoutSec) {
  TShellOutcome outcome = FSurroundings.Shell(commandLine, timeoutSec);
  if (!outcome.Problem.empty()) AddToLog(HtmlEscape(outcome.Problem));
  return outcome;
}

TGuardianStatus TGuardianService::Status() const {
  TGuardianStatus status;
  status.StatusText = FStatusLine.Get();
  const TDaemonPathSeen daemon = FDaemonPath.Seen();
  status.DaemonPath = daemon.Path;
  status.DaemonPathExists = daemon.Exists;
  status.MutexPath = GetMutexPath();
  status.DaemonTempPath = FTempPath.Copy();
  status.GotPaths = FMutexPathReceived;
  status.GetPathsError = FMutexPathMissing;
  status.ProcessList = FDaemonProcess.LastListing();
  status.ProcessListTime = FSurroundings.Clock->ToWallTime(FDaemonProcess.LastListingAt());
  status.InitialOutput = FHandshakeOutput.Get();
  status.ActivityLog = FActivityLog.ShortLog();
  status.DetailedLog = FActivityLog.DetailedLog();
  status.Watchdog = Reading();
  status.History = FHistory;
  return status;
}

TWatchdogReading TGuardianService::Reading() const {
  const auto round = FLastRound.Get();
  const TDateTime now = FSurroundings.Clock->SteadyNow();
  const auto ageSec = [now](TDateTime instant) { return (now - instant) / kSecond; };
  TWatchdogReading reading;
  reading.MutexOK = round->Seen.MutexOK;
  reading.PipeOK = round->Seen.PipeOK;
  reading.ServiceOK = round->Seen.ServiceOK;
  if (round->Rounds > 0) reading.CheckAgeSec = ageSec(round->Seen.Now);
  reading.Pid = round->Seen.Pid;
  reading.Pulse = round->Seen.Pulse;
  const TDateTime startedAt = FStartedAt;
  reading.PulseAgeSec = ageSec(round->Rounds > 0 ? round->State.LastPulseAt : startedAt);
  reading.Rounds = round->Rounds;
  reading.Restarts = round->Restarts;
  reading.RestartAttempts = round->State.RestartAttempts;
  reading.MutexFailures = round->State.MutexFailures;
  reading.PipeFailures = round->State.PipeFailures;
  for (std::size_t i = 0; i < kDaemonActions; ++i) {
    const TCommandTally& tally = round->Tallies.at(i);
    reading.Actions.at(i).Total = tally.Total;
    if (tally.Total > 0) reading.Actions.at(i).LastAgeSec = ageSec(tally.LastAt);
  }
  reading.UptimeSec = ageSec(startedAt);
  reading.HoldLeftSec = FHold.LeftSec();
  reading.Next = DescribeNext(round->Seen, round->State);
  return reading;
}

}  // namespace guardian
