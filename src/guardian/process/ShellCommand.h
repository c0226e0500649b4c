#pragma once

#include <chrono>
#include <string>

#include "guardian/process/ShellEnding.h"

namespace guardian {

class TCancellation;

// One command line for the shell; see RunShellCmdWithOutput for what the fields mean.
struct TShellCommand {
  std::string CommandLine;
  std::chrono::milliseconds Timeout{0};
  std::string TempFileName;  // Empty for a new one.
  const TCancellation* Cancellation = nullptr;
  std::string ShellPath = "/bin/sh";
};

struct TShellResult {
  TShellEnd End = TShellEnd::CouldNotRun;
  int ExitCode = -1;         // The shell's own where it exited, otherwise -1.
  int ErrorNumber = 0;       // Why it could not be run.
  std::string TempFileName;  // The file that was used or tried.
  std::string Output;
};

// Runs the command and waits for its end; it leaves the checkpoints of each step and logs nothing.
// Threads: any; blocks for the timeout and, for a command that must be ended, four seconds more.
[[nodiscard]] TShellResult RunShell(const TShellCommand& command);

}  // namespace guardian
