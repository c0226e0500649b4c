#include "system/GuardianFixture.h"

namespace guardian {
namespace {

using testing::ElementsAreArray;
using testing::HasSubstr;

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

// It holds its mutex and its pipe, and no signal but SIGKILL moves it.
TEST_F(EscalationTest, KillsADaemonThatStandsStill) {
  StartHealthy();
  const pid_t pid = FInstallation.DaemonPid();
  FInstallation.OrderFault("ignore-stop");
  ASSERT_EQ(::kill(pid, SIGSTOP), 0);
  ExpectAnotherDaemon(pid);
  const std::string page = Page("");
  EXPECT_THAT(page, HasSubstr("<br>Pipe failure counter = 6<br>"));
  EXPECT_THAT(page, HasSubstr("<br>Executed kill -9 " + std::to_string(pid) + ", Result: <br>"));
  // The next daemon takes its mutex a moment after its start.
  const std::string before = page.substr(0, page.find("<br>Executed kill -9"));
  EXPECT_TRUE(LogLines(before, {"Mutex failure counter = "}).empty()) << page;
}

TEST_F(EscalationTest, EachControlPageActsOnTheDaemon) {
  StartHealthy();
  const std::string pid = std::to_string(FInstallation.DaemonPid());
  const std::string daemon = FInstallation.DaemonPath();
  FInstallation.OrderFault("ignore-stop\nignore-term");
  struct TControl {
    const char* Page;
    const char* Answer;
    std::string Command;
  };
  for (const TControl& control : {
           TControl{"stopdaemon.php", "VellumarkCL will be asked to stop.", daemon + " stop"},
           {"terminatedaemon.php", "STOP signal will be sent to VellumarkCL", "kill " + pid},
           {"startdaemon.php", "VellumarkCL will be started", daemon + " start"},
           {"killdaemon.php", "KILL signal will be sent to VellumarkCL", "kill -9 " + pid},
       }) {
    EXPECT_EQ(std::to_string(FInstallation.DaemonPid()), pid) << "before " << control.Page;
    EXPECT_EQ(Page(control.Page), control.Answer);
    ExpectOnPage("<br>Executed " + control.Command + ", Result: ");
  }
  ExpectInDaemonLog(" ignored");
  ExpectAnotherDaemon(std::stoi(pid));
  EXPECT_EQ(Page("terminateguardian.php"), "Guardian stopped.");
  ExpectEnded();
}

}  // namespace
}  // namespace guardian
