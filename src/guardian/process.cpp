#include "guardian/process.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "common/Exceptions.h"
#include "guardian/ShellCommand.h"

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

}  // namespace guardian
