#include "BenchedGuardian.h"

#include <stdlib.h>
#include <unistd.h>

#include <stdexcept>

#include "Measure.h"
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

TBenchedGuardian::TBenchedGuardian(TGuardianKind kind, const std::string& folders)
    : FInstallation(kind == TGuardianKind::Fast ? FAST_GUARDIAN_EXECUTABLE : GUARDIAN_EXECUTABLE,
                    folders) {
  Require(!Answers(), "the Guardian's port is in use");
  ::setenv("VELLUMARKCL_HOME", FInstallation.Home().c_str(), 1);
  ::setenv("FAST_GUARDIAN_FACTOR", std::to_string(kFastFactor).c_str(), 1);
}

void TBenchedGuardian::StartDaemon() const { RunToEnd({DaemonPath(), "start"}); }

void TBenchedGuardian::StartGuardian() { FGuardian = FInstallation.Run({GuardianPath()}); }

void TBenchedGuardian::StopGuardian() {
  FGuardian->Signal(SIGTERM);
  Require(FGuardian->Wait() == 0, "the Guardian did not end in order");
  FGuardian.reset();
}

void TBenchedGuardian::WaitForAnswer() const { Require(Eventually(Answers), "no answer"); }

void TBenchedGuardian::WaitForHealthyRound() const {
  WaitForAnswer();
  Require(Eventually([] {
            return Page("").find("Mutex=Y Service=Y Pipe=Y Pulse: ") != std::string::npos;
          }),
          "no healthy round");
}

void TBenchedGuardian::FillLogs() const {
  const auto twoFullLogs = static_cast<std::size_t>(Rounds(2 * 130'000, 2 * 5'000));
  Require(Eventually([=] {
            Page("startdaemon.php");
            return Page("").size() > twoFullLogs;
          }),
          "the logs do not fill");
}

std::string Page(const std::string& name) {
  const std::string answer = RawAnswer(kGuardianPort, "/" + name);
  return answer.substr(answer.find("\r\n\r\n") + 4);
}

}  // namespace guardian
