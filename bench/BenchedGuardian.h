#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "support/Program.h"
#include "system/Installation.h"

namespace guardian {

inline constexpr std::uint16_t kGuardianPort = 8900;

enum class TGuardianKind {
  Product,  // As it is delivered.
  Fast,     // With a watchdog whose time runs faster, by kFastFactor.
};

inline constexpr int kFastFactor = 50;

// The Guardian over its stand-in daemon, as the benchmarks need them.
// Owner: a benchmark.
// Threads: not shared.
// Lifetime: the destructor ends both.
class TBenchedGuardian {
 public:
  // Throws when another program is on the Guardian's port. The folders are part of the paths of
  // both executables: the longer they are, the longer are the lines of the logs.
  explicit TBenchedGuardian(TGuardianKind kind, const std::string& folders = {});

  // Each of these throws when it cannot do what its name says.

  void StartDaemon() const;

  // Starts the Guardian; does not wait for anything.
  void StartGuardian();
  void StopGuardian();
  void WaitForAnswer() const;
  // Until a round finds everything well.
  void WaitForHealthyRound() const;

  // Sends requests that the Guardian logs, until both logs have their full length; some lines are
  // enough when the benchmarks are only tried out.
  void FillLogs() const;

  [[nodiscard]] pid_t GuardianPid() const { return FGuardian->Pid(); }
  [[nodiscard]] std::string GuardianPath() const { return FInstallation.GuardianPath(); }
  [[nodiscard]] std::string DaemonPath() const { return FInstallation.DaemonPath(); }
  // Where the daemon's mutex and its pipe are.
  [[nodiscard]] std::string MutexFolder() const { return FInstallation.Home() + "/mutex"; }

 private:
  const TInstallation FInstallation;
  std::unique_ptr<TProgram> FGuardian;  // Ends before its installation.
};

// The body of a page of the Guardian. Throws std::runtime_error when the Guardian does not answer.
std::string Page(const std::string& name);

}  // namespace guardian
