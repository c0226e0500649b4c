#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "support/Program.h"
#include "support/TempFolder.h"

namespace guardian {

inline constexpr std::uint16_t kGuardianPort = 8900;

enum class TGuardianKind {
  Product,  // As it is delivered.
  Fast,     // With a watchdog whose time runs faster, by kFastFactor.
};

inline constexpr int kFastFactor = 50;

// The Guardian and its stand-in daemon side by side in a folder of their own.
// Owner: a benchmark. Threads: not shared. Lifetime: the destructor ends both.
class TInstallation {
 public:
  // Throws when somebody else is on the Guardian's port. The folders are the way to the two; the
  // longer they are, the longer are the lines of the logs.
  explicit TInstallation(TGuardianKind kind, const std::string& folders = {});
  ~TInstallation();
  TInstallation(const TInstallation&) = delete;
  TInstallation& operator=(const TInstallation&) = delete;

  // Each throws when it does not come to what it says.

  void StartDaemon() const;
  void StopDaemon() const;

  // The pid that the daemon wrote; 0 for none, also when that process has gone.
  [[nodiscard]] pid_t DaemonPid() const;

  // Starts the Guardian; does not wait for anything.
  void StartGuardian();
  void StopGuardian();
  void WaitForAnswer() const;
  // Until a round finds nothing to complain of.
  void WaitForHealthyRound() const;

  // With requests whose effects it logs, until both logs have their full length.
  void FillLogs() const;

  [[nodiscard]] pid_t GuardianPid() const { return FGuardian->Pid(); }
  [[nodiscard]] std::string GuardianPath() const { return FBin + "/VellumarkGuardian"; }
  [[nodiscard]] std::string DaemonPath() const { return FBin + "/VellumarkCL"; }
  [[nodiscard]] std::string MakeFile(const std::string& name, const std::string& text) const;

 private:
  [[nodiscard]] std::string Home() const { return FFolder.Path("home"); }

  const TTempFolder FFolder;
  const std::string FBin;
  std::unique_ptr<TProgram> FGuardian;
};

// The body of a page of the Guardian. Throws std::runtime_error when it does not answer.
std::string Page(const std::string& name);

}  // namespace guardian
