#include "system/GuardianFixture.h"

namespace guardian {
namespace {

using testing::ElementsAreArray;

using EscalationTest = GuardianSystemTest;

// A lost mutex, with a daemon that only SIGKILL ends.
TEST_F(EscalationTest, GoesFromStopThroughTerminateToKillOnALostMutex) {
  StartHealthy();
  const pid_t before = FInstallation.DaemonPid();
  const std::string pid = std::to_string(before);
  const std::string daemon = FInstallation.DaemonPath();
  FInstallation.OrderFault("drop-mutex\nignore-stop\nignore-term");
  EXPECT_TRUE(Eventually([&] { return ::kill(before, 0) != 0; }, kHangLimit)) << Page("");
  FInstallation.OrderFault("");
  ExpectAnotherDaemon(before);
  ExpectOnPage("Executed " + daemon + " start");

  std::vector<std::string> expected;
  for (int failure = 1; failure <= 10; ++failure) {
    expected.push_back("Mutex failure counter = " + std::to_string(failure));
    if (failure < 6) continue;
    expected.push_back("Need to restart service, attempt counter = " + std::to_string(failure - 5));
    expected.push_back("Executed " + (failure == 6   ? daemon + " stop"
                                      : failure <= 9 ? "kill " + pid
                                                     : "kill -9 " + pid));
  }
  expected.push_back("Executed " + daemon + " start");
  auto seen = LogLines(Page(""), {"Mutex failure counter", "Need to restart", "Executed "});
  // A round may have come after the start, before the next daemon took its mutex.
  seen.resize(std::min(seen.size(), expected.size()));
  EXPECT_THAT(seen, ElementsAreArray(expected));
  ExpectInDaemonLog("Command received: msgStartTimer");
  ExpectInDaemonLog("SIGTERM from PID");
  ExpectOnPage(": MutexOK=Y, PipeStatusOK=Y, ServiceOK=Y");
}

TEST_F(EscalationTest, EachControlPageActsOnTheDaemon) {
  StartHealthy();
  const std::string pid = std::to_string(FInstallation.DaemonPid());
  const std::string daemon = FInstallation.DaemonPath();
  FInstallation.OrderFault("ignore-stop\nignore-term");
  for (const auto& [page, answer, command] : std::vector<std::array<std::string, 3>>{
           {"stopdaemon.php", "VellumarkCL will be asked to stop.", daemon + " stop"},
           {"terminatedaemon.php", "STOP signal will be sent to VellumarkCL", "kill " + pid},
           {"startdaemon.php", "VellumarkCL will be started", daemon + " start"},
           {"killdaemon.php", "KILL signal will be sent to VellumarkCL", "kill -9 " + pid},
       }) {
    EXPECT_EQ(std::to_string(FInstallation.DaemonPid()), pid) << "before " << page;
    EXPECT_EQ(Page(page), answer);
    ExpectOnPage("<br>Executed " + command + ", Result: ");
  }
  ExpectInDaemonLog(" ignored");
  ExpectAnotherDaemon(std::stoi(pid));
  EXPECT_EQ(Page("terminateguardian.php"), "Guardian stopped.");
  ExpectEnded();
}

}  // namespace
}  // namespace guardian
