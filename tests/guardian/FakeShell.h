#pragma once

#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "common/Mutex.h"
#include "guardian/GuardianService.h"

namespace guardian {

inline constexpr const char* kPsWithColumns =
    R"(ps -ef --columns 1000 | grep -e "[V]ellumarkCL" -e "[o]ption")";
inline constexpr const char* kPlainPs = R"(ps -ef | grep "[V]ellumarkCL")";

// Answers command lines from a table and records them with their time-outs.
// Threads: any.
class TFakeShell {
 public:
  // What this command line answers from now on; unknown ones answer nothing.
  void Answer(const std::string& commandLine, TShellOutcome outcome) KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    FAnswers[commandLine] = std::move(outcome);
  }

  TShellOutcome Run(const std::string& commandLine, int timeoutSec) KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    FRun.push_back(commandLine + " @" + std::to_string(timeoutSec));
    return FAnswers[commandLine];
  }

  // The commands since the last call, each with " @" and its time-out.
  std::vector<std::string> TakeCommands() KZ_EXCLUDES(FLock) {
    const TMutexLock lock(FLock);
    return std::exchange(FRun, {});
  }

 private:
  TMutex FLock;
  std::map<std::string, TShellOutcome> FAnswers KZ_GUARDED_BY(FLock);
  std::vector<std::string> FRun KZ_GUARDED_BY(FLock);
};

}  // namespace guardian
