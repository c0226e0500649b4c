#include "system/GuardianFixture.h"

namespace guardian {
namespace {

using testing::HasSubstr;

// What is delivered, on its own time.
class ProductSystemTest : public GuardianSystemTest {
 protected:
  ProductSystemTest() : GuardianSystemTest(GUARDIAN_EXECUTABLE) {}
};

TEST_F(ProductSystemTest, RunsAsADaemonOfWhichTheWatchedDaemonInheritsNothing) {
  EXPECT_EQ(Command("start"), "Launching Guardian Service as Daemon.\n");
  ASSERT_TRUE(Eventually([] { return !Page("status.php").empty(); }));
  const pid_t guardian = FInstallation.DetachedGuardian();
  ASSERT_GT(guardian, 1);
  EXPECT_NE(::getsid(guardian), ::getsid(0));
  ExpectAnotherDaemon(0);
  ::kill(guardian, SIGKILL);
  ASSERT_TRUE(Eventually([] { return Page("status.php").empty(); }));
  EXPECT_TRUE(FInstallation.DaemonRuns());

  // The port and the lock files are free although the daemon lives.
  StartGuardian();
  EXPECT_TRUE(Eventually([&] {
    return Contains(FGuardian->Output(), "Web Status Server Active on Port 8900\n");
  })) << FGuardian->Output();
}

TEST_F(GuardianSystemTest, BringsAKilledDaemonBackAndAnswersItsCommandWords) {
  const std::string nobody = "The Guardian is not running or unreachable via localhost:8900.\n";
  EXPECT_EQ(Command("status", 3), "Querying Guardian Service.\n" + nobody);
  EXPECT_EQ(Command("stop"), "Stopping Guardian Service.\n" + nobody);

  StartGuardian();
  ExpectAnotherDaemon(0);
  const pid_t before = FInstallation.DaemonPid();
  ASSERT_TRUE(FInstallation.KillDaemon());
  ExpectAnotherDaemon(before);
  const std::string answer = "Guardian running and accessible via port 8900. \n";
  EXPECT_EQ(Command("status"), "Querying Guardian Service.\n" + answer);
  EXPECT_EQ(Command("start"), answer + "Guardian Service already running.\n");
  EXPECT_THAT(Page(""), HasSubstr("Attempting to start daemon in " + FInstallation.DaemonPath()));
  EXPECT_EQ(Command("stop"), "Stopping Guardian Service.\nGuardian stopped.\n");
  EXPECT_EQ(Page("status.php"), "") << "it has ended when the command has";
  ExpectEnded();
  EXPECT_TRUE(FInstallation.DaemonRuns()) << "the daemon outlives the Guardian";
}

TEST_F(GuardianSystemTest, TakesNoStrangerOnItsPortForAGuardian) {
  const TTempFolder& folder = FInstallation.Folder();
  folder.Write("status.php", "Nothing here goes.");
  const TProgram stranger(
      {"/usr/bin/python3", "-m", "http.server", "8900", "--directory", folder.Path()});
  ASSERT_TRUE(Eventually([] { return !Page("status.php").empty(); }));
  EXPECT_EQ(Command("status", 3), "Querying Guardian Service.\nNothing here goes.\n");
}

// In its loop, while the handshake's command hangs, and while a command of a round does.
TEST_F(GuardianSystemTest, EndsOnSignalsInEveryState) {
  for (const char* fault : {"", "hang-paths", "hang-stop"}) {
    for (const int number : {SIGTERM, SIGINT}) {
      SCOPED_TRACE(fault + std::to_string(number));
      FInstallation.OrderFault("");
      StartDaemon();
      FInstallation.Folder().Write("home/logs/daemon.log", "");
      FInstallation.OrderFault(fault);
      FGuardian = FInstallation.Run({FInstallation.GuardianPath()});
      ASSERT_TRUE(Eventually([&] {
        const bool answers = !Page("stopdaemon.php").empty();
        return *fault == '\0' ? answers : Contains(FInstallation.DaemonLog(), "A command hangs");
      }));
      FGuardian->Signal(number);
      ExpectEnded();
    }
  }
}

TEST_F(GuardianSystemTest, RunsOnWithAHandshakeThatFailsOrFloods) {
  for (const char* fault : {"no-mutex-path", "paths-flood"}) {
    FInstallation.OrderFault(fault);
    StartGuardian();
    EXPECT_THAT(Page(""), HasSubstr("Inactive: GotPaths=N, GetPathsError=Y<br><br>")) << fault;
    EXPECT_THAT(Page(""), HasSubstr("WARNING: Mutex Path Not Received from VellumarkCL<br>"));
    EXPECT_EQ(Command("stop"), "Stopping Guardian Service.\nGuardian stopped.\n");
    ExpectEnded();
  }
}

TEST_F(GuardianSystemTest, ShowsEachThreadAndLeavesAReportWhereTheDaemonsLogsAreWhenItCrashes) {
  ::setenv("VELLUMARK_GUARDIAN_DEBUG", "1", 1);
  StartHealthy();
  ::unsetenv("VELLUMARK_GUARDIAN_DEBUG");
  const std::string tasks = "/proc/" + std::to_string(FGuardian->Pid()) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(tasks)) {
    ExpectOnPage("Thread " + task.path().filename().string() + ", CP: ", "threadreport.php");
  }
  for (const char* passed : {"MainLoop:Wait", "GuardianTimer:Wait", "Tick.Mutex", "Tick.Pipe"}) {
    ExpectOnPage(passed, "threadreport.php");  // In the histories of the debug mode.
  }
  EXPECT_TRUE(FInstallation.Folder().Has("home/logs/VellumarkGuardian_Errors.log"));
  FGuardian->Signal(SIGABRT);
  EXPECT_EQ(FGuardian->Wait(), -SIGABRT);
  EXPECT_THAT(FInstallation.Folder().Read("home/logs/VellumarkGuardian_Exceptions.log"),
              HasSubstr("Fatal Signal 6 (SIGABRT)"));
}

}  // namespace
}  // namespace guardian
