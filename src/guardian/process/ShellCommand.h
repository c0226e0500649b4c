#pragma once

#include <chrono>
#include <string>

#include "guardian/process/ShellEnding.h"

namespace guardian {

class TCancellation;

// One command line for "/bin/sh"; see RunShellCmdWithOutput for what the fields mean.
struct TShellCommand {
  std::string CommandLine;
  std::chrono::milliseconds Timeout{0};
  std::string TempFileName;  // Empty for a new one.
  const TCancellation* Cancellation = nullptr;
};

struct TShellResult {
  TShellEnd End = TShellEnd::CouldNotRun;
  int ExitCode = -1;         // The shell's status when End is Exited, otherwise -1.
  int ErrorNumber = 0;       // The reason when End is CouldNotRun, otherwise 0.
  std::string TempFileName;  // The file that was used or tried.
  std::string Output;
};

// Runs the command and waits for its end. Sets a checkpoint at each step and logs nothing.
// Threads: any; blocks for the timeout and, for a command that must be ended, four seconds more.
[[nodiscard]] TShellResult RunShell(const TShellCommand& command);

}  // namespace guardian
