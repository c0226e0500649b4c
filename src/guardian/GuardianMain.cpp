#include "guardian/GuardianMain.h"

#include <chrono>
#include <memory>
#include <string_view>
#include <utility>

#include "common/Console.h"
#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "common/Settings.h"
#include "diagnostics/KZCheckpoints.h"
#include "guardian/GuardianService.h"
#include "guardian/SystemLog.h"
#include "guardian/process.h"
#include "ipc/KZCustomApplication.h"
#include "ipc/KZMessages.h"
#include "ipc/KZUnixPipes.h"
#include "webstatus/WebStatusServer.h"
#include "webstatus/http_client.h"

namespace guardian {
namespace {

TShellOutcome RunCommand(const std::string& commandLine, int timeoutSec,
                         const TCancellation& stopping) {
  constexpr int kNotEnded = -1;
  TShellOutcome outcome;
  int exitCode = 0;
  try {
    RunShellCmdWithOutput(outcome.Output, commandLine, timeoutSec, true, "", exitCode, &stopping);
    if (exitCode == kNotEnded && !stopping.IsCancelled()) {
      outcome.Problem = "Ended after " + std::to_string(timeoutSec) +
                        " seconds or for too much output: " + commandLine;
    }
  } catch (const KZException& error) {
    outcome.Problem = error.Message();
  }
  return outcome;
}

// Starts what lies below the service and stops it in the opposite order, on every path.
class TUnits {
 public:
  TUnits() {
    KZCP::Init();
    StartMessages();
    StartPipes();
  }
  ~TUnits() {
    StopPipes();
    StopMessages();
    KZCP::Fini();
  }
  TUnits(const TUnits&) = delete;
  TUnits& operator=(const TUnits&) = delete;
};

// The calling thread is the main one for as long as this lives.
class TMainThreadBinding {
 public:
  TMainThreadBinding() { BindMainThread(); }
  ~TMainThreadBinding() { CloseMainThreadQueue(); }
  TMainThreadBinding(const TMainThreadBinding&) = delete;
  TMainThreadBinding& operator=(const TMainThreadBinding&) = delete;
};

void RunGuardian(TClock& clock) {
  const TMainThreadBinding mainThread;
  TKZCustomApplication application;
  application.Initialize();
  const TUnits units;
  TGuardianService service({
      .Shell =
          [&application](const std::string& commandLine, int timeoutSec) {
            return RunCommand(commandLine, timeoutSec, application.Stopping());
          },
      .MakeScheduler =
          [&application, &clock](TScheduler::TLog log) {
            return std::make_unique<TSchedulerClient>(Settings().SchedulerPipeName, std::move(log),
                                                      application.Stopping(), clock);
          },
      .SystemLog =
          [&application](std::string_view message, TSystemLogKind kind) {
            WriteSystemLog(message, kind, application.Stopping());
          },
      .OwnPath = Settings().OwnExecutablePath,
      .ConfDir = GetDaemonConfDir(),
      .Clock = &clock,
  });
  service.Start();
  StartWebStatusServer({
      .Guardian = &service,
      .TerminateGuardian = [&application] { application.Terminate(); },
      .Shell =
          [&application](const std::string& commandLine, int timeoutSec) {
            return RunCommand(commandLine, timeoutSec, application.Stopping()).Output;
          },
  });
  application.Run();
  service.Stop();
  KZCP::Checkpoint("WebStatSrv.fini");
  FreeWebStatusServer();
  KZCP::Checkpoint("WebStatSrv.finidone");
}

}  // namespace

void GuardianMain(TClock& clock) {
  const auto& commandLine = Settings().CommandLine;
  const std::string word = commandLine.size() > 1 ? commandLine[1] : std::string();
  if (word == "stop") {
    PrintLine("Stopping Guardian Service.");
    QueryGuardian("terminateguardian.php", TQueryOutput::AnswerOrFailure);
    return;
  }
  if (word == "status") {
    PrintLine("Querying Guardian Service.");
    QueryGuardian("status.php", TQueryOutput::AnswerOrFailure);
    return;
  }
  if (word == "start") {
    if (QueryGuardian("status.php", TQueryOutput::AnswerOnly)) {
      PrintLine("Guardian Service already running.");
      return;
    }
    PrintLine("Launching Guardian Service as Daemon.");
    BecomeDaemon();
  }
  RunGuardian(clock);
}

bool QueryGuardian(const std::string& page, TQueryOutput output) {
  constexpr std::chrono::milliseconds kTimeout{60'000};
  Settings().AskingGuardian = true;
  try {
    const std::string answer = HttpGet("localhost:8900/" + page, kTimeout).Body;
    PrintLine(answer);
    return answer.find("running") != std::string::npos;
  } catch (const KZException&) {
    if (output == TQueryOutput::AnswerOrFailure) {
      PrintLine("The Guardian is not running or unreachable via localhost:8900.");
    }
    return false;
  }
}

}  // namespace guardian
