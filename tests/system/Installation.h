#pragma once

#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "DaemonExecutable.h"
#include "support/Program.h"

namespace guardian {

// A Guardian and its stand-in daemon side by side in a folder of their own, as they are installed.
// Owner: a test or a benchmark, whose thread alone uses it.
// Lifetime: the destructor ends the daemon and a Guardian that has become one; a TProgram ends
// with its owner, which must be before.
class TInstallation {
 public:
  // The executables are copied, the Guardian's from the path. The folders, such as "/a/b", are put
  // between the installation's folder and them.
  explicit TInstallation(const std::string& guardian, const std::string& folders = {})
      : FBin(FFolder.Path("bin" + folders)) {
    for (const auto& name : {FBin, Home(), FFolder.Path("tmp")}) {
      std::filesystem::create_directories(name);
    }
    std::filesystem::copy_file(guardian, GuardianPath());
    std::filesystem::copy_file(DAEMON_EXECUTABLE, DaemonPath());
  }

  ~TInstallation() {
    if (const pid_t detached = DetachedGuardian(); detached != 0) ::kill(detached, SIGKILL);
    // A restart may be under way: whoever holds the daemon's place is ended, at most thrice.
    for (int round = 0; round < 3 && DaemonRuns(); ++round) KillDaemon();
  }
  TInstallation(const TInstallation&) = delete;
  TInstallation& operator=(const TInstallation&) = delete;

  [[nodiscard]] std::string Home() const { return FFolder.Path("home"); }
  [[nodiscard]] std::string GuardianPath() const { return FBin + "/VellumarkGuardian"; }
  [[nodiscard]] std::string DaemonPath() const { return FBin + "/VellumarkCL"; }
  [[nodiscard]] const TTempFolder& Folder() const { return FFolder; }

  // Runs the command line in the installation's environment.
  [[nodiscard]] std::unique_ptr<TProgram> Run(std::vector<std::string> line,
                                              std::vector<std::string> environment = {}) const {
    environment.push_back("VELLUMARKCL_HOME=" + Home());
    environment.push_back("TMPDIR=" + FFolder.Path("tmp"));
    return std::make_unique<TProgram>(std::move(line), std::move(environment));
  }

  // Withdraws the faults that were ordered before, and orders these, a word a line.
  void OrderFault(const std::string& words) const { FFolder.Write("home/faults", words + "\n"); }

  [[nodiscard]] std::string DaemonLog() const { return FFolder.Read("home/logs/daemon.log"); }

  // The pid that the daemon wrote; 0 for none.
  [[nodiscard]] pid_t DaemonPid() const {
    return std::atoi(FFolder.Read("home/daemon.pid").c_str());
  }
  [[nodiscard]] bool DaemonRuns() const { return Runs(DaemonPid()); }
  static bool Runs(pid_t pid) { return pid > 1 && ::kill(pid, 0) == 0; }

  // Kills the daemon and waits for its end; false when it has none to kill or it does not end.
  bool KillDaemon() const {
    const pid_t pid = DaemonPid();
    return pid > 1 && ::kill(pid, SIGKILL) == 0 && Eventually([pid] { return !Runs(pid); });
  }

  // The Guardian that made itself a daemon: the process that runs this folder's executable.
  [[nodiscard]] pid_t DetachedGuardian() const {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      std::error_code error;
      const auto target = std::filesystem::read_symlink(entry.path() / "exe", error);
      if (!error && target == GuardianPath()) return std::atoi(entry.path().filename().c_str());
    }
    return 0;
  }

 private:
  const TTempFolder FFolder;
  const std::string FBin;
};

}  // namespace guardian
