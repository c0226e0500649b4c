#include "guardian/process.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "common/Cancellation.h"
#include "common/Clock.h"
#include "common/Exceptions.h"
#include "common/FileDescriptor.h"
#include "guardian/process/ShellChild.h"
#include "guardian/process/ShellCommand.h"

namespace guardian {

// NOLINTNEXTLINE(readability-function-size): the parameters are fixed.
void RunShellCmdWithOutput(std::string& output, const std::string& commandLine, int timeoutSec,
                           bool raiseOnFailure, const std::string& tempFileName, int& exitCode,
                           const TCancellation* cancellation) {
  output.clear();
  exitCode = -1;
  TShellCommand command;
  command.CommandLine = commandLine;
  command.Timeout = std::chrono::seconds(std::max(timeoutSec, 0));
  command.TempFileName = tempFileName;
  command.Cancellation = cancellation;
  TShellResult result = RunShell(command);
  output = std::move(result.Output);
  exitCode = result.ExitCode;
  if (result.End == TShellEnd::CouldNotRun && raiseOnFailure) {
    throw KZException("Error executing " + commandLine + " >\"" + result.TempFileName +
                      "\": " + SystemErrorText(result.ErrorNumber));
  }
}

TProgramEnd RunProgram(const std::vector<std::string>& arguments, int timeoutSec,
                       const TCancellation* cancellation,
                       const std::vector<std::string>& environment) {
  TProgramEnd end;
  if (cancellation != nullptr && cancellation->IsCancelled()) return end;
  const TFileDescriptor nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  TShellChild child;
  end.ErrorNumber = nowhere ? child.Spawn(arguments, nowhere.Get(), environment) : errno;
  if (end.ErrorNumber != 0) return end;
  TShellEnding ending(std::chrono::seconds(std::max(timeoutSec, 0)), SystemClock().TickCount());
  child.Wait(
      ending, [] { return std::uint64_t{0}; }, cancellation);
  if (ending.Reason() == TShellEnd::Exited) end.ExitCode = child.ExitCode();
  return end;
}

}  // namespace guardian
