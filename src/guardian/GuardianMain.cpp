#include "guardian/GuardianMain.h"

#include <malloc.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <string_view>
#include <utility>

#include "common/AtEnd.h"
#include "common/Console.h"
#include "common/DiagnosticMessage.h"
#include "common/Environment.h"
#include "common/ErrorLog.h"
#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "common/Settings.h"
#include "common/Texts.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exception_report.h"
#include "guardian/GuardianService.h"
#include "guardian/HistoryStore.h"
#include "guardian/Notification.h"
#include "guardian/RunCommand.h"
#include "guardian/ServiceManager.h"
#include "guardian/SystemLog.h"
#include "guardian/Units.h"
#include "guardian/process.h"
#include "guardian/process/ChildRegistry.h"
#include "ipc/KZCustomApplication.h"
#include "ipc/scheduler_client.h"
#include "webstatus/HealthProblems.h"
#include "webstatus/HttpClient.h"
#include "webstatus/WebStatusServer.h"

namespace guardian {
namespace {

constexpr const char* kGuardianAddress = "localhost:8900/";

void ReadDebugMode() {
  constexpr const char* kDebugVariable = "VELLUMARK_GUARDIAN_DEBUG";
  const std::string value = EnvironmentText(kDebugVariable);
  Settings().DebugMode = value == "1";
  if (value.empty() || value == "0" || value == "1") return;
  PrintLine(std::string(kDebugVariable) + " is neither 0 nor 1: " + value);
}

// The error log is for the debug mode alone; the lines before went to standard error or to the
// system log.
void UseLogFolder() {
  ExceptionsLogFolderChanged();
  if (!Settings().DebugMode) return;
  const std::string name =
      JoinPath(LogFolder(), FileNameOf(Settings().OwnExecutablePath)) + "_Errors.log";
  if (!ErrorLog().Open(name)) {
    DiagnosticMessage("The error log cannot be opened: " + name + ": " + SystemErrorText(errno));
  }
}

TGuardianSurroundings SurroundingsOf(TKZCustomApplication& application, TNotifier& notifier,
                                     TClock& clock) {
  return {
      .Shell =
          [&application](const std::string& commandLine, int timeoutSec) {
            return RunCommand(commandLine, timeoutSec, application.Stopping());
          },
      .MakeScheduler =
          [&application, &clock](TScheduler::TLog log) {
            return std::make_unique<TSchedulerClient>(Settings().SchedulerPipeName, std::move(log),
                                                      application.Stopping(), clock);
          },
      .SystemLog = &WriteSystemLog,
      .Notify = [&notifier](TNoticeKind kind, std::string_view text,
                            std::string_view status) { notifier.Tell(kind, text, status); },
      .NotifyProblems = [&notifier] { return notifier.TakeProblems(); },
      .OwnPath = Settings().OwnExecutablePath,
      .ConfDir = GetDaemonConfDir(),
      .Stopping = application.Stopping(),
      .IsOwnProcess = &IsOwnProcess,
      .Clock = &clock,
  };
}

// What the service manager can only mend by a new process; empty for nothing. A page that waits for
// a dead disk is not among it: a new process would wait for the same disk.
std::string_view WhatStandsStill(const TGuardianService& service) {
  if (!MakesItsRounds(service.Reading())) return "the watchdog";
  return WebStatusServerGoesOn() ? "" : "the web server";
}

void RunMainLoop(TKZCustomApplication& application, TGuardianService& service,
                 TServiceManager& manager, TClock& clock) {
  // What could not start, as for want of a descriptor, is tried again so often.
  constexpr std::int64_t kRetryMs = 10'000;
  std::int64_t retryTick = clock.TickCount() + kRetryMs;
  const auto round = [&] {
    if (clock.TickCount() >= retryTick) {
      retryTick = clock.TickCount() + kRetryMs;
      service.StartTimer();
      RetryWebStatusServer();
    }
    if (manager.IsDue()) manager.Report(*service.StatusLine(), WhatStandsStill(service));
  };
  application.Run(round, manager.Interval());
}

void RunGuardian(TServiceManager& manager, TClock& clock) {
  BindMainThread();
  const TAtEnd closeQueue([] { CloseMainThreadQueue(); });
  TKZCustomApplication application;
  application.Initialize();
  KZCP::Init();  // Before any thread, so that the thread report shows them all.
  const TSystemLogWriter systemLog;
  // The lines that nobody else would see.
  SetLastResort([](std::string_view line) { WriteSystemLog(line, TSystemLogKind::Warning); });
  const TAtEnd noLastResort([] { SetLastResort({}); });
  const TUnits units;
  TNotifier notifier(EnvironmentText("VELLUMARK_GUARDIAN_NOTIFY"));
  TGuardianService service(SurroundingsOf(application, notifier, clock));
  manager.ExtendStart();
  service.Start();
  UseLogFolder();
  // Also when something below throws: a page must not outlive the service.
  const TAtEnd freeServer([] {
    KZCP::Checkpoint("WebStatSrv.fini");
    FreeWebStatusServer();
    KZCP::Checkpoint("WebStatSrv.finidone");
  });
  StartWebStatusServer({
      .Guardian = &service,
      .TerminateGuardian = [&application] { application.Terminate(); },
      .Shell =
          [&application](const std::string& commandLine, int timeoutSec) {
            return RunCommand(commandLine, timeoutSec, application.Stopping()).Output;
          },
  });
  // Behind the server, which need not wait for what it reads.
  const THistoryStore historyStore(service.History(), &OpenGuardianStore, clock);
  RunMainLoop(application, service, manager, clock);
  manager.ReportEnd();
  service.Stop();
}

// Whether something listens on the Guardian's port, be it a Guardian that hangs.
bool PortIsTaken() {
  try {
    (void)HttpGet(std::string(kGuardianAddress) + "status.php", std::chrono::seconds(1));
    return true;
  } catch (const EHttpUnreachable&) {
    return false;
  } catch (const KZException&) {
    return true;
  }
}

// Waits until the port is free, since the Guardian answers the request to end before it ends.
bool GuardianEnds() {
  constexpr std::chrono::milliseconds kRound{50};
  constexpr std::int64_t kLimitMs = 30'000;
  const std::int64_t deadline = SystemTickCount() + kLimitMs;
  while (PortIsTaken()) {
    if (SystemTickCount() >= deadline) return false;
    SystemClock().Sleep(kRound);
  }
  return true;
}

struct TAnswer {
  bool PortIsTaken = true;
  std::string Text;  // Empty when there is none.
};

// Prints the answer, if there is one.
TAnswer AskGuardian(const std::string& page, TQueryOutput output) {
  constexpr std::chrono::milliseconds kTimeout{60'000};
  Settings().AskingGuardian = true;
  TAnswer answer;
  try {
    answer.Text = HttpGet(kGuardianAddress + page, kTimeout).Body;
    PrintLine(answer.Text);
    return answer;
  } catch (const EHttpUnreachable&) {
    answer.PortIsTaken = false;
  } catch (const KZException&) {
    // Somebody who hangs, or who knows no such page.
  }
  if (output == TQueryOutput::AnswerOrFailure) {
    PrintLine("The Guardian is not running or unreachable via localhost:8900.");
  }
  return answer;
}

// Waits only for a Guardian that ends: whoever else has the port will not leave it.
int StopGuardian() {
  PrintLine("Stopping Guardian Service.");
  const TAnswer answer = AskGuardian("terminateguardian.php", TQueryOutput::AnswerOrFailure);
  if (!answer.PortIsTaken) return kExitOk;
  return answer.Text == "Guardian stopped." && GuardianEnds() ? kExitOk : kExitFailed;
}

// "start" makes a daemon, unless a Guardian answers already.
int RunHereOrAsDaemon(const std::string& word, TClock& clock) {
  ReadDebugMode();
  TServiceManager manager;
  if (word == "start") {
    if (QueryGuardian("status.php", TQueryOutput::AnswerOnly)) {
      PrintLine("Guardian Service already running.");
      return kExitOk;
    }
    PrintLine("Launching Guardian Service as Daemon.");
    BecomeDaemon();
  }
  RunGuardian(manager, clock);
  return kExitOk;
}

}  // namespace

int GuardianMain(TClock& clock) {
  OpenStandardHandles();
  std::signal(SIGPIPE, SIG_IGN);
  // A heap for each thread would take memory, and nothing here allocates so often that it would
  // gain.
  ::mallopt(M_ARENA_MAX, 1);
  const auto& commandLine = Settings().CommandLine;
  const std::string word = commandLine.size() > 1 ? commandLine[1] : std::string();
  if (word == "stop") return StopGuardian();
  if (word == "status") {
    PrintLine("Querying Guardian Service.");
    const bool running = QueryGuardian("status.php", TQueryOutput::AnswerOrFailure);
    return running ? kExitOk : kExitNotRunning;
  }
  try {
    return RunHereOrAsDaemon(word, clock);
  } catch (...) {
    PrintLine("The Guardian cannot run: " + CurrentExceptionMessage());
    WriteExceptionReport(std::current_exception(), "GuardianMain");
    return kExitFailed;
  }
}

bool QueryGuardian(const std::string& page, TQueryOutput output) {
  return AskGuardian(page, output).Text.find("running") != std::string::npos;
}

}  // namespace guardian
