#pragma once

#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/Cancellation.h"
#include "common/Clock.h"
#include "common/SharedText.h"
#include "common/ThreadChecker.h"
#include "common/Timer.h"
#include "guardian/DaemonControl.h"
#include "guardian/DaemonPath.h"
#include "guardian/DaemonProcess.h"
#include "guardian/Hold.h"
#include "guardian/Notification.h"
#include "guardian/RunCommand.h"
#include "guardian/WatchdogDecision.h"
#include "ipc/scheduler_client.h"
#include "webstatus/ActivityLog.h"
#include "webstatus/GuardianControl.h"
#include "webstatus/History.h"

namespace guardian {

// What the service sees of the machine. Everything outlives the service.
struct TGuardianSurroundings {
  std::function<TShellOutcome(const std::string& commandLine, int timeoutSec)> Shell;
  // Makes the scheduler's client, which logs by the given function. Main thread.
  std::function<std::unique_ptr<TScheduler>(TScheduler::TLog log)> MakeScheduler;
  // Returns false when the text is dropped. Must not block.
  std::function<bool(std::string_view message, TSystemLogKind kind)> SystemLog;
  // Tells somebody a plain text, with the status line. Must not block. May be empty.
  std::function<void(TNoticeKind kind, std::string_view text, std::string_view status)> Notify{};
  // What went wrong with that since the last call, a line each. Must not block. May be empty.
  std::function<std::vector<std::string>()> NotifyProblems{};
  std::string OwnPath;            // The Guardian's executable, full path.
  std::string ConfDir;            // Where the daemon's configuration lies.
  const TCancellation& Stopping;  // Cancelled when the process is to end; ends Shell's commands.
  TIsOwnProcess IsOwnProcess;
  const TFileSystemView* Files = &RealFileSystem();
  TClock* Clock = &SystemClock();
};

// The state after the last round of the watchdog, for the pages.
struct TRoundRecord {
  TObservation Seen;
  TWatchdogState State;
  TCommandTallies Tallies;
  std::int64_t Rounds = 0;
  std::int64_t Restarts = 0;
};

// The plain base of services.
class TService {};

// The watchdog: keeps the daemon alive on a timer of 10 seconds.
//
// Owner: the entry; one a process.
// Threads: the main thread calls Start, StartTimer, Stop, Pause and Continue. The tick, and all
// shell commands after Start, run on the timer's thread, which owns the fields that are marked so.
// The HTTP threads call Status and the requests, any thread AddToLog; these take no lock that a
// tick holds while it works. Lifetime: outlives the web status server that was given it. Stop waits
// for a running tick, so the owner ends a shell command that is under way first.
class TGuardianService final : public TService, public TGuardianControl {
 public:
  explicit TGuardianService(TGuardianSurroundings surroundings);
  ~TGuardianService() override;

  // Asks the daemon for its directories, for at most 600 seconds, and starts the timer. A failure
  // is a line in the log.
  void Start();
  // Starts the timer when Start could not.
  void StartTimer();
  void Stop();

  void Pause();
  // Returns true always.
  bool Continue();

  // The timer's handler: carries out the requests, then checks the status. A step that throws is
  // reported, and the others follow; once the process is to end, no step does. Timer thread.
  void Tick();

  // Looks at the daemon, judges and acts. Timer thread.
  void CheckStatus();

  // Appends an HTML line to the detailed log.
  void AddToLog(std::string_view text) { FActivityLog.AddDetailEntry(text); }

  // Whether the daemon's process runs, by the process list. Throws SoftException when the list
  // cannot be read. Timer thread.
  bool IsDaemonRunning(TProcessCheck mode) { return FDaemonProcess.Check(mode); }

  // Sends the daemon one message over its scheduler pipe; returns whether it was sent. Timer
  // thread.
  bool SendPipeCommand(TSyncCommMessages command);

  // The path of the daemon's executable, see TDaemonPath::Get. Start, then timer thread.
  std::string GetDaemonPath();

  // The scheduler's mutex, in the directory that the handshake named. Any thread.
  [[nodiscard]] static std::string GetMutexPath();

  [[nodiscard]] TGuardianStatus Status() const override;
  // What the pages show of the last round. Any thread; blocks as Status, but for no file system.
  [[nodiscard]] TWatchdogReading Reading() const;
  [[nodiscard]] TSharedText::TText StatusLine() const { return FStatusLine.Get(); }
  void RequestStart() override { Request(FStartRequested); }
  void RequestStop() override { Request(FStopRequested); }
  void RequestTerminate() override { Request(FTerminateRequested); }
  void RequestKill() override { Request(FKillRequested); }
  void Hold(std::chrono::minutes length) override;
  void Release() override;

  // What is remembered, for the thread that keeps it over a restart. Any thread.
  [[nodiscard]] const std::shared_ptr<THistory>& History() const { return FHistory; }

 private:
  void RequestDaemonPaths();
  void AnnounceHold();
  void CarryOutRequests();
  TObservation Observe();
  void LookAtProcess(TObservation& seen);
  void CarryOut(const TStep& step);
  void RecordRound(const TObservation& seen);
  void TellRecovery();
  void LogNotifyProblems();
  void Notify(TNoticeKind kind, std::string_view text);
  void Request(std::atomic<bool>& flag);
  void WriteToSystemLog(std::string_view message, TSystemLogKind kind);
  TShellOutcome RunShell(const std::string& commandLine, int timeoutSec);
  void ReportFailure(const std::exception_ptr& error) noexcept;
  bool DoGuarded(const std::function<void()>& step);

  const TGuardianSurroundings FSurroundings;
  const std::shared_ptr<THistory> FHistory;
  THold FHold;
  TActivityLog FActivityLog;
  TDaemonPath FDaemonPath;
  TDaemonProcess FDaemonProcess;
  TDaemonControl FControl;
  const std::unique_ptr<TScheduler> FScheduler;

  // Used by Start, then by the timer thread alone, which begins after Start has written them.
  TThreadChecker FTickThread;
  bool FLastServiceOK = false;
  TWatchdogState FWatchdog;
  std::int64_t FRounds = 0;
  std::int64_t FRestarts = 0;
  TDateTime FLastSystemLogAt = 0;
  std::int64_t FAnnouncedHold = 0;  // The end of the hold that the log tells of; 0 for none.
  bool FToldOfTrouble = false;      // By an error or a warning, since the last recovery.

  // Written by Start and by the timer thread, read by pages.
  TSharedText FTempPath;
  TSharedText FHandshakeOutput;
  TSharedText FStatusLine;
  TShared<TRoundRecord> FLastRound;
  std::atomic<TDateTime> FStartedAt = 0;  // An instant of TClock::SteadyNow.
  std::atomic<bool> FMutexPathReceived = false;
  std::atomic<bool> FMutexPathMissing = false;

  // Set by pages, cleared by the timer thread.
  std::atomic<bool> FStartRequested = false;
  std::atomic<bool> FStopRequested = false;
  std::atomic<bool> FTerminateRequested = false;
  std::atomic<bool> FKillRequested = false;

  bool FWatches = false;  // The timer has been started. Main thread only.

  // The last field: its thread uses all the others.
  TKZTimer FTimer;
};

}  // namespace guardian
