#include "guardian/RunCommand.h"

#include "common/Cancellation.h"
#include "common/Exceptions.h"
#include "guardian/process.h"

namespace guardian {

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
    outcome.CouldNotRun = true;
    outcome.Problem = error.Message();
  }
  return outcome;
}

}  // namespace guardian
