#pragma once

#include <string>

namespace guardian {

class TCancellation;

// The result of a shell command.
struct TShellOutcome {
  std::string Output;
  // A line for the log when the command could not be run or had to be ended; otherwise empty.
  std::string Problem;
  bool CouldNotRun = false;  // The command did not even begin.
};

// Runs a shell command as RunShellCmdWithOutput does, for at most the given seconds. A command that
// ends because the process is stopping is no problem. Never throws for a failed run.
// Threads: any; blocks as RunShellCmdWithOutput does.
[[nodiscard]] TShellOutcome RunCommand(const std::string& commandLine, int timeoutSec,
                                       const TCancellation& stopping);

}  // namespace guardian
