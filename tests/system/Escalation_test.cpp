#include <signal.h>

#include <string>

#include "system/EscalationFixture.h"

namespace guardian {
namespace {

using testing::HasSubstr;

TEST_F(EscalationTest, GoesFromStopThroughTerminateToKillOnALostMutex) {
  ExpectFullEscalation(kHangLimit);
}

TEST_F(EscalationTest, AsksADaemonWithAFrozenPulseAndNeverRestartsIt) {
  StartHealthy();
  const pid_t pid = DaemonPid();
  OrderFault("freeze-pulse");
  ASSERT_TRUE(
      Eventually([&] { return DaemonLogHas("Command received: msgEnquireStatus"); }, kHangLimit))
      << Page("");
  EXPECT_TRUE(
      Eventually([] { return PageHas("Pulse change over 1.2 minutes ago, last pulse was at:"); }));
  // Past the two minutes after which one might expect a restart.
  ASSERT_TRUE(Eventually([&] {
    return LinesOf(Page(""), {"Pulse change over 1.2 minutes ago, last pulse was at:"}).size() >= 8;
  }));
  EXPECT_EQ(DaemonPid(), pid);
  EXPECT_FALSE(PageHas("Need to restart service"));
  OrderFault("");
  const std::size_t asked = LinesOf(Page(""), {"Pulse change detected, FLastPulseAt now:"}).size();
  EXPECT_TRUE(Eventually([&] {
    return LinesOf(Page(""), {"Pulse change detected, FLastPulseAt now:"}).size() > asked;
  }));
}

TEST_F(EscalationTest, RestartsADaemonWhosePipeIsLost) {
  StartHealthy();
  const pid_t pid = DaemonPid();
  OrderFault("close-pipe");
  ASSERT_TRUE(
      Eventually([&] { return DaemonLogHas("Ended, PID " + std::to_string(pid)); }, kHangLimit))
      << Page("");
  OrderFault("");
  ASSERT_TRUE(AnotherDaemonRuns(pid));
  const std::string page = Page("");
  EXPECT_THAT(page, HasSubstr("<br>Pipe failure counter = 6<br>"));
  EXPECT_THAT(page, HasSubstr("  ERROR: Pipe not OK - need to restart service.<br>"));
  EXPECT_THAT(page, HasSubstr("<br>Executed " + DaemonPath() + " stop, Result: "));
  EXPECT_EQ(LinesOf(page, {"Executed kill"}).size(), 0U);
}

// It holds its mutex and its pipe, and no signal but SIGKILL moves it.
TEST_F(EscalationTest, KillsADaemonThatStandsStill) {
  StartHealthy();
  const pid_t pid = DaemonPid();
  ASSERT_EQ(::kill(pid, SIGSTOP), 0);
  ASSERT_TRUE(AnotherDaemonRuns(pid, kHangLimit)) << Page("");
  const std::string page = Page("");
  EXPECT_THAT(page, HasSubstr("<br>Pipe failure counter = 6<br>"));
  EXPECT_THAT(page, HasSubstr("<br>Executed kill -9 " + std::to_string(pid) + ", Result: <br>"));
  // The next daemon takes its mutex a moment after its start.
  const std::string before = page.substr(0, page.find("<br>Executed kill -9"));
  EXPECT_EQ(LinesOf(before, {"Mutex failure counter = "}).size(), 0U);
}

TEST_F(EscalationTest, TriesAFailingStartOnceATickUntilItSucceeds) {
  OrderFault("start-fails");
  StartGuardian();
  ASSERT_TRUE(Eventually([&] {
    return LinesOf(Page(""), {"Executed " + DaemonPath() + " start, Result: "}).size() >= 3;
  })) << Page("");
  const std::string page = Page("");
  const auto counted = LinesOf(page, {"Attempting to start daemon in ", "Status at "});
  for (std::size_t i = 1; i < counted.size(); ++i) EXPECT_NE(counted[i], counted[i - 1]) << page;
  EXPECT_FALSE(DaemonRuns());
  OrderFault("");
  EXPECT_TRUE(AnotherDaemonRuns(0));
}

TEST_F(EscalationTest, EachControlPageActsOnTheDaemon) {
  StartHealthy();
  const std::string pid = std::to_string(DaemonPid());
  OrderFault("ignore-stop\nignore-term");
  EXPECT_EQ(Page("stopdaemon.php"), "VellumarkCL will be asked to stop.");
  EXPECT_TRUE(
      Eventually([&] { return PageHas("<br>Executed " + DaemonPath() + " stop, Result: "); }));
  EXPECT_EQ(Page("terminatedaemon.php"), "STOP signal will be sent to VellumarkCL");
  EXPECT_TRUE(Eventually([&] { return DaemonLogHas(" ignored"); }));
  EXPECT_TRUE(Eventually([&] { return PageHas("<br>Executed kill " + pid + ", Result: <br>"); }));
  EXPECT_EQ(Page("startdaemon.php"), "VellumarkCL will be started");
  EXPECT_TRUE(
      Eventually([&] { return PageHas("<br>Executed " + DaemonPath() + " start, Result: "); }));
  EXPECT_EQ(std::to_string(DaemonPid()), pid);
  EXPECT_EQ(Page("killdaemon.php"), "KILL signal will be sent to VellumarkCL");
  EXPECT_TRUE(
      Eventually([&] { return PageHas("<br>Executed kill -9 " + pid + ", Result: <br>"); }));
  EXPECT_TRUE(AnotherDaemonRuns(std::stoi(pid))) << "the watchdog starts what was killed";
  EXPECT_EQ(Page("terminateguardian.php"), "Guardian stopped.");
  EXPECT_EQ(FGuardian->Wait(), 0);
  ExpectNothingLeft();
}

TEST_F(EscalationTest, SecondGuardianTakesTheNextPort) {
  StartHealthy();
  const auto second = Guardian({});
  ASSERT_TRUE(Eventually([&] {
    return second->Output().find("Web Status Server Active on Port 8899\n") != std::string::npos;
  })) << second->Output();
  const auto page = [](const std::string& name) {
    return HttpGet("localhost:8899/" + name, kHangLimit).Body;
  };
  EXPECT_EQ(page("status.php"), "Guardian running and accessible via port 8899. ");
  EXPECT_EQ(Page("status.php"), "Guardian running and accessible via port 8900. ");
  EXPECT_EQ(page("terminateguardian.php"), "Guardian stopped.");
  EXPECT_EQ(second->Wait(), 0);
  EXPECT_TRUE(FGuardian->Running());
  EXPECT_TRUE(DaemonRuns());
}

}  // namespace
}  // namespace guardian
