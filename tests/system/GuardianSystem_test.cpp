#include <gmock/gmock.h>

#include <filesystem>
#include <string>

#include "common/Clock.h"
#include "system/GuardianFixture.h"

namespace guardian {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

TEST_F(GuardianSystemTest, BringsAKilledDaemonBackAndAnswersItsCommandWords) {
  StartGuardian();
  ASSERT_TRUE(GuardianAnswers());
  ASSERT_TRUE(AnotherDaemonRuns(0));
  const pid_t before = DaemonPid();
  KillDaemon();
  const std::int64_t killedAt = SystemTickCount();
  ASSERT_TRUE(AnotherDaemonRuns(before));
  RecordProperty("back_after_ms", std::to_string(SystemTickCount() - killedAt));

  EXPECT_EQ(Command("status"),
            "Querying Guardian Service.\nGuardian running and accessible via port 8900. \n");
  EXPECT_EQ(Command("start"),
            "Guardian running and accessible via port 8900. \nGuardian Service already running.\n");
  EXPECT_THAT(Page(""), HasSubstr("Attempting to start daemon in " + FFolder.Path("VellumarkCL")));
  EXPECT_EQ(Command("stop"), "Stopping Guardian Service.\nGuardian stopped.\n");
  EXPECT_EQ(Page("status.php"), "") << "it has ended when the command has";
  EXPECT_EQ(FGuardian->Wait(), 0);
  ExpectNothingLeft();
  EXPECT_TRUE(DaemonRuns()) << "the daemon outlives the Guardian";
  EXPECT_THAT(FGuardian->Output(),
              StartsWith("Vellumark Guardian (Silent Mode)\nInitial Output: TMP=" + Home()));
  EXPECT_THAT(FGuardian->Output(), HasSubstr("\nWeb Status Server Active on Port 8900\n"));
}

TEST_F(GuardianSystemTest, SaysThatNobodyRuns) {
  EXPECT_EQ(Command("status", 3),
            "Querying Guardian Service.\n"
            "The Guardian is not running or unreachable via localhost:8900.\n");
  EXPECT_EQ(Command("stop"),
            "Stopping Guardian Service.\n"
            "The Guardian is not running or unreachable via localhost:8900.\n");
}

TEST_F(GuardianSystemTest, RunsAsADaemonOfWhichTheWatchedDaemonInheritsNothing) {
  EXPECT_EQ(Command("start"), "Launching Guardian Service as Daemon.\n");
  ASSERT_TRUE(GuardianAnswers());
  const pid_t guardian = DetachedGuardian();
  ASSERT_NE(guardian, 0);
  EXPECT_EQ(::getsid(guardian) == ::getsid(0), false);
  ASSERT_TRUE(AnotherDaemonRuns(0));
  ::kill(guardian, SIGKILL);
  ASSERT_TRUE(Eventually([] { return Page("status.php").empty(); }));
  EXPECT_TRUE(DaemonRuns());

  // The port and the lock files are free although the daemon lives.
  StartGuardian();
  ASSERT_TRUE(GuardianAnswers());
  EXPECT_TRUE(Eventually([&] {
    return FGuardian->Output().find("Active on Port 8900\n") != std::string::npos;
  })) << FGuardian->Output();
}

TEST_F(GuardianSystemTest, EndsOnSignalsInEveryState) {
  for (const int number : {SIGTERM, SIGINT}) {
    StartGuardian();
    ASSERT_TRUE(GuardianAnswers());
    FGuardian->Signal(number);
    EXPECT_EQ(FGuardian->Wait(), 0) << number;
    ExpectNothingLeft();
  }
}

TEST_F(GuardianSystemTest, EndsWhileTheHandshakeHangs) {
  OrderFault("hang-paths");
  int hanging = 0;
  for (const int number : {SIGTERM, SIGINT}) {
    StartGuardian();
    ++hanging;
    ASSERT_TRUE(Eventually([&] { return CommandsHang(hanging); }));
    const std::int64_t signalledAt = SystemTickCount();
    FGuardian->Signal(number);
    EXPECT_EQ(FGuardian->Wait(), 0) << number;
    RecordProperty("ended_after_ms_" + std::to_string(number),
                   std::to_string(SystemTickCount() - signalledAt));
    ExpectNothingLeft();
  }
}

TEST_F(GuardianSystemTest, EndsWhileACommandOfTheTickHangs) {
  StartDaemon();
  OrderFault("hang-stop");
  StartGuardian();
  ASSERT_TRUE(GuardianAnswers());
  EXPECT_EQ(Page("stopdaemon.php"), "VellumarkCL will be asked to stop.");
  ASSERT_TRUE(Eventually([&] { return CommandsHang(1); }));
  const std::int64_t signalledAt = SystemTickCount();
  FGuardian->Signal(SIGTERM);
  EXPECT_EQ(FGuardian->Wait(), 0);
  RecordProperty("ended_after_ms", std::to_string(SystemTickCount() - signalledAt));
  ExpectNothingLeft();
  EXPECT_TRUE(DaemonRuns());
}

TEST_F(GuardianSystemTest, HearsThePulseAndTheDaemonItsCommands) {
  StartDaemon();
  StartGuardian();
  ASSERT_TRUE(GuardianAnswers());
  EXPECT_TRUE(Eventually([&] { return PageHas("Scheduler Msg: tsaSchedulerRunning "); }));
  EXPECT_TRUE(Eventually([&] {
    return PageHas(": MutexOK=Y, PipeStatusOK=Y, ServiceOK=Y, PID=" + std::to_string(DaemonPid()));
  })) << Page("");
  OrderFault("drop-mutex");
  EXPECT_TRUE(Eventually([&] { return DaemonLogHas("Command received: msgStartTimer"); }));
  EXPECT_TRUE(Eventually(
      [&] { return PageHas("ERROR: Mutex not OK - start timer command sent to service."); }));
}

TEST_F(GuardianSystemTest, RunsOnWithAHandshakeThatFailsOrFloods) {
  for (const char* fault : {"no-mutex-path", "paths-flood"}) {
    OrderFault(fault);
    StartGuardian();
    ASSERT_TRUE(GuardianAnswers()) << fault;
    EXPECT_THAT(Page(""), HasSubstr("Inactive: GotPaths=N, GetPathsError=Y<br><br>")) << fault;
    EXPECT_THAT(Page(""), HasSubstr("WARNING: Mutex Path Not Received from VellumarkCL<br>"));
    EXPECT_EQ(Command("stop"), "Stopping Guardian Service.\nGuardian stopped.\n");
    EXPECT_EQ(FGuardian->Wait(), 0) << fault;
    ExpectNothingLeft();
  }
}

TEST_F(GuardianSystemTest, SaysWhyADaemonCannotBeStarted) {
  std::filesystem::remove(FFolder.Path("VellumarkCL"));
  FFolder.Write("VellumarkCL", "not a program");
  StartGuardian();
  ASSERT_TRUE(GuardianAnswers());
  EXPECT_TRUE(Eventually([&] {
    return Page("").find("start, Result: /bin/sh: 1: " + FFolder.Path("VellumarkCL") +
                         ": Permission denied") != std::string::npos;
  })) << Page("");
}

}  // namespace
}  // namespace guardian
