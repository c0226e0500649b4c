#include "Installation.h"

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <stdexcept>

#include "DaemonExecutable.h"
#include "Programs.h"
#include "support/Eventually.h"

namespace guardian {
namespace {

void Require(bool met, const std::string& what) {
  if (!met) throw std::runtime_error(what);
}

bool Answers() {
  const int connection = TryConnect(kGuardianPort);
  if (connection < 0) return false;
  ::close(connection);
  return true;
}

}  // namespace

TInstallation::TInstallation(TGuardianKind kind, const std::string& folders)
    : FBin(FFolder.Path("bin" + folders)) {
  Require(!Answers(), "the Guardian's port is in use");
  std::filesystem::create_directories(FBin);
  std::filesystem::create_directories(Home());
  std::filesystem::create_directories(FFolder.Path("tmp"));
  const bool fast = kind == TGuardianKind::Fast;
  std::filesystem::copy_file(fast ? FAST_GUARDIAN_EXECUTABLE : GUARDIAN_EXECUTABLE, GuardianPath());
  std::filesystem::copy_file(DAEMON_EXECUTABLE, DaemonPath());
  ::setenv("VELLUMARKCL_HOME", Home().c_str(), 1);
  ::setenv("FAST_GUARDIAN_FACTOR", std::to_string(kFastFactor).c_str(), 1);
}

TInstallation::~TInstallation() {
  FGuardian.reset();
  const pid_t daemon = DaemonPid();
  if (daemon > 1) ::kill(daemon, SIGKILL);
}

void TInstallation::StartDaemon() const { RunToEnd({DaemonPath(), "start"}); }

void TInstallation::StopDaemon() const { RunToEnd({DaemonPath(), "stop"}); }

pid_t TInstallation::DaemonPid() const {
  std::ifstream file(Home() + "/daemon.pid");
  pid_t pid = 0;
  file >> pid;
  return pid > 1 && ::kill(pid, 0) == 0 ? pid : 0;
}

void TInstallation::StartGuardian() {
  FGuardian = std::make_unique<TProgram>(std::vector<std::string>{GuardianPath()},
                                         std::vector<std::string>{"TMPDIR=" + FFolder.Path("tmp")});
}

void TInstallation::StopGuardian() {
  FGuardian->Signal(SIGTERM);
  Require(FGuardian->Wait() == 0, "the Guardian did not end in order");
  FGuardian.reset();
}

void TInstallation::WaitForAnswer() const { Require(Eventually(Answers), "no answer"); }

void TInstallation::WaitForHealthyRound() const {
  WaitForAnswer();
  Require(Eventually([] {
            return Page("").find("Mutex=Y Service=Y Pipe=Y Pulse: ") != std::string::npos;
          }),
          "no healthy round");
}

void TInstallation::FillLogs() const {
  constexpr std::size_t kTwoFullLogs = 2 * 130'000;
  Require(Eventually([] {
            Page("startdaemon.php");
            return Page("").size() > kTwoFullLogs;
          }),
          "the logs do not fill");
}

std::string TInstallation::MakeFile(const std::string& name, const std::string& text) const {
  FFolder.Write(name, text);
  return FFolder.Path(name);
}

std::string Page(const std::string& name) {
  const std::string answer = RawAnswer(kGuardianPort, "/" + name);
  return answer.substr(answer.find("\r\n\r\n") + 4);
}

}  // namespace guardian
