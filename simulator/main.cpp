// VellumarkCL, the stand-in for the supervised daemon:
//   VellumarkCL /PATHS          prints where its folders are
//   VellumarkCL start [FAULT]   adds the faults to those that are ordered, and starts the daemon
//   VellumarkCL run [FAULT]     the same in the foreground
//   VellumarkCL stop            ends the daemon
//   VellumarkCL status          says whether it runs

#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "common/Clock.h"
#include "common/Console.h"
#include "common/Exceptions.h"
#include "common/FileDescriptor.h"
#include "common/Settings.h"
#include "simulator/EventLog.h"
#include "simulator/Faults.h"
#include "simulator/Home.h"
#include "simulator/Launch.h"
#include "simulator/PidFile.h"
#include "simulator/StandInDaemon.h"

namespace guardian {
namespace {

constexpr int kExitUsage = 2;
constexpr int kExitNotRunning = 3;
constexpr std::chrono::seconds kStopTimeout{15};
constexpr std::chrono::hours kHang{1};  // Longer than any caller waits, but not endless.
constexpr int kFloodMegabytes = 100;

using TWords = std::vector<std::string>;

void HangAs(const THome& home, TFault fault) {
  LogEvent(home, std::string("A command hangs: ").append(FaultWord(fault)));
  SystemClock().Sleep(kHang);
}

void PrintFlood() {
  const std::string line = std::string(63, '.') + "\n";
  std::string megabyte;
  while (megabyte.size() < 1'000'000) megabyte += line;
  megabyte.resize(1'000'000, '\n');
  for (int i = 0; i < kFloodMegabytes; ++i) {
    if (WriteAll(STDOUT_FILENO, megabyte) != 0) return;
  }
}

int PrintPaths(const THome& home, const TWords& /*words*/) {
  home.CreateFolders();
  LogEvent(home, "Asked for the paths");
  const TFaults faults = ReadFaults(home);
  if (faults.Has(TFault::HangPaths)) HangAs(home, TFault::HangPaths);
  if (faults.Has(TFault::PathsFlood)) PrintFlood();
  PrintLine("TMP=" + home.TempFolder());
  if (!faults.Has(TFault::NoMutexPath)) PrintLine("MUTEX=" + home.MutexFolder());
  PrintLine("LOGS=" + home.LogFolder());
  return EXIT_SUCCESS;
}

int SayRunning(const std::string& text, pid_t pid) {
  PrintLine("VellumarkCL " + text + ", PID " + std::to_string(pid) + ".");
  return EXIT_SUCCESS;
}

int SayNotStarted(const THome& home, const std::string& reason) {
  LogEvent(home, "Not started: " + reason);
  PrintLine("VellumarkCL could not be started: " + reason + ".");
  return EXIT_FAILURE;
}

void RunDaemon(const THome& home, TPidFile pidFile, const TReportReady& reportReady) {
  TStandInDaemon daemon(home, std::move(pidFile));
  reportReady({});
  daemon.Run();
}

int StartDaemon(const THome& home, TPidFile pidFile) {
  const std::string error = LaunchDaemon(
      [&](const TReportReady& reportReady) { RunDaemon(home, std::move(pidFile), reportReady); });
  if (!error.empty()) return SayNotStarted(home, error);
  PrintLine("VellumarkCL started.");
  return EXIT_SUCCESS;
}

int RunInForeground(const THome& home, TPidFile pidFile) {
  RunDaemon(home, std::move(pidFile),
            [](const std::string&) { SayRunning("runs in the foreground", ::getpid()); });
  return EXIT_SUCCESS;
}

int Begin(const THome& home, const TWords& faultWords, int (*begin)(const THome&, TPidFile)) {
  home.CreateFolders();
  OrderFaults(home, faultWords);
  if (ReadFaults(home).Has(TFault::StartFails))
    return SayNotStarted(home, "start-fails is ordered");
  TPidFile::TAcquired acquired = TPidFile::Acquire(home.PidFile());
  if (!acquired.File) return SayRunning("is already running", acquired.Holder);
  return begin(home, std::move(*acquired.File));
}

int Start(const THome& home, const TWords& words) { return Begin(home, words, StartDaemon); }

int Run(const THome& home, const TWords& words) { return Begin(home, words, RunInForeground); }

int Status(const THome& home, const TWords& /*words*/) {
  if (const auto holder = TPidFile::Holder(home.PidFile()); holder) {
    return SayRunning("is running", *holder);
  }
  PrintLine("VellumarkCL is not running.");
  return kExitNotRunning;
}

int StopHolder(const THome& home, pid_t holder) {
  const auto outcome = TerminateHolder(home.PidFile(), holder, kStopTimeout);
  if (outcome == TStopOutcome::StillRunning) {
    SayRunning("did not end within 15 seconds", holder);
    return EXIT_FAILURE;
  }
  return SayRunning("stopped", holder);
}

int Stop(const THome& home, const TWords& /*words*/) {
  const TFaults faults = ReadFaults(home);
  if (faults.Has(TFault::HangStop)) HangAs(home, TFault::HangStop);
  const auto holder = TPidFile::Holder(home.PidFile());
  if (!holder) {
    PrintLine("VellumarkCL is not running.");
    return EXIT_SUCCESS;
  }
  LogEvent(home, "Asked to stop");
  if (faults.Has(TFault::IgnoreStop)) {
    SayRunning("ignores the stop", *holder);
    return EXIT_FAILURE;
  }
  return StopHolder(home, *holder);
}

struct TCommand {
  std::string_view Word;
  int (*Run)(const THome& home, const TWords& words);
};

constexpr std::array kCommands = {
    TCommand{"/PATHS", PrintPaths}, TCommand{"start", Start},   TCommand{"run", Run},
    TCommand{"stop", Stop},         TCommand{"status", Status},
};

// Call it first: this process must have no descriptor of its own open yet.
void ForgetInheritedDescriptors(const THome& home) {
  if (!ReadFaults(home).Has(TFault::KeepOpen)) CloseInheritedDescriptors();
}

int RunCommand(const TWords& arguments) {
  const std::string_view word = arguments.size() > 1 ? std::string_view(arguments[1]) : "";
  for (const TCommand& command : kCommands) {
    if (command.Word != word) continue;
    return command.Run(THome::FromEnvironment(), TWords(arguments.begin() + 2, arguments.end()));
  }
  PrintLine("Usage: VellumarkCL /PATHS | start [FAULT...] | run [FAULT...] | stop | status");
  return kExitUsage;
}

}  // namespace
}  // namespace guardian

int main(int argc, char** argv) {
  guardian::InitSettings(argc, argv);
  try {
    guardian::ForgetInheritedDescriptors(guardian::THome::FromEnvironment());
    return guardian::RunCommand(guardian::Settings().CommandLine);
  } catch (...) {
    guardian::PrintLine("VellumarkCL failed: " + guardian::CurrentExceptionMessage());
    return EXIT_FAILURE;
  }
}
