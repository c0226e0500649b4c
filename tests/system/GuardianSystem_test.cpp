#include "guardian/NotifySocket.h"
#include "system/GuardianFixture.h"
#include "webstatus/RawClient.h"

namespace guardian {
namespace {

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

TEST_F(GuardianSystemTest, StartsTheDaemonAndAnswersItsCommandWords) {
  const std::string nobody = "The Guardian is not running or unreachable via localhost:8900.\n";
  EXPECT_EQ(Command("status", 3), "Querying Guardian Service.\n" + nobody);
  EXPECT_EQ(Command("stop"), "Stopping Guardian Service.\n" + nobody);

  StartGuardian();
  ExpectAnotherDaemon(0);
  const std::string answer = "Guardian running and accessible via port 8900. \n";
  EXPECT_EQ(Command("status"), "Querying Guardian Service.\n" + answer);
  EXPECT_EQ(Command("start"), answer + "Guardian Service already running.\n");
  EXPECT_THAT(Page(""), HasSubstr("Attempting to start daemon in " + FInstallation.DaemonPath()));
  EXPECT_EQ(Command("stop"), "Stopping Guardian Service.\nGuardian stopped.\n");
  EXPECT_EQ(Page("status.php"), "") << "it has ended when the command has";
  ExpectEnded();
  EXPECT_TRUE(FInstallation.DaemonRuns()) << "the daemon outlives the Guardian";
}

// Three who answer, and two silences of one that ends slowly.
TEST_F(GuardianSystemTest, TakesNoStrangerForAGuardianAndASilentOneForNoneThatHasEnded) {
  const TFileDescriptor listener = ListenOnLoopback(8900);
  int questions = 0;
  TCrew other(1, [&](int) {
    for (const std::string answer :
         {"Nothing here goes.", "Nor it stops.", "Guardian stopped.", "", ""}) {
      TFileDescriptor socket(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!socket) return;
      ++questions;
      TRawClient peer(std::move(socket));
      peer.ReadToEmptyLine();
      if (!answer.empty()) peer.Send("HTTP/1.1 200 OK\r\n\r\n" + answer);
      if (answer.empty()) peer.ReadToEnd();
    }
    ::shutdown(listener.Get(), SHUT_RDWR);  // From now on it refuses.
  });
  EXPECT_EQ(Command("status", 3), "Querying Guardian Service.\nNothing here goes.\n");
  EXPECT_EQ(Command("stop", 1), "Stopping Guardian Service.\nNor it stops.\n");
  EXPECT_EQ(Command("stop"), "Stopping Guardian Service.\nGuardian stopped.\n");
  ::shutdown(listener.Get(), SHUT_RDWR);
  other.Join();
  EXPECT_EQ(questions, 5);
}

// With standard handles that are closed, or that nobody reads any more.
TEST_F(GuardianSystemTest, StartsWhateverItsStandardHandlesAre) {
  StartGuardianBy({"/bin/sh", "-c", "exec \"$0\" <&- >&- 2>&-", FInstallation.GuardianPath()});
  for (const char* number : {"0", "1", "2"}) {
    EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(FGuardian->Pid()) + "/fd/" +
                                            number),
              "/dev/null");
  }
  Command("stop");
  StartGuardianBy({"/bin/bash", "-c", "exec 3> >(:); wait $!; exec \"$0\" start >&3",
                   FInstallation.GuardianPath()});
}

// In its loop, after a handshake that fails or floods, and while a command of either hangs.
TEST_F(GuardianSystemTest, EndsOnSignalsInEveryState) {
  for (const auto& [fault, state] : std::vector<std::array<std::string, 2>>{
           {"", "MutexOK=Y, PipeStatusOK=Y, ServiceOK=Y"},
           {"no-mutex-path", "WARNING: Mutex Path Not Received from VellumarkCL<br>"},
           {"paths-flood", "Inactive: GotPaths=N, GetPathsError=Y<br><br>"},
           {"hang-paths", "A command hangs"},
           {"hang-stop", "A command hangs"},
       }) {
    for (const int number : {SIGTERM, SIGINT}) {
      SCOPED_TRACE(fault + std::to_string(number));
      FInstallation.OrderFault("");
      StartDaemon();
      FInstallation.Folder().Write("home/logs/daemon.log", "");
      FInstallation.OrderFault(fault);
      FGuardian = FInstallation.Run({FInstallation.GuardianPath()});
      ASSERT_TRUE(Eventually([&] {
        if (fault == "hang-stop") Page("stopdaemon.php");
        return Contains(Page("") + FInstallation.DaemonLog(), state);
      }));
      FGuardian->Signal(number);
      ExpectEnded();
    }
  }
}

// Before its handshake, at its end, and when its watchdog hangs for two minutes of its time.
TEST_F(GuardianSystemTest, TellsTheServiceManagerHowItIs) {
  const std::string name = FInstallation.Folder().Path("manager");
  const TFileDescriptor manager = NotifySocketAt(name);
  ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
  ::setenv("WATCHDOG_USEC", "8000000", 1);
  const auto hears = [&](const std::string& text) {
    return Eventually([&] { return Contains(ReceivedNotice(manager), text); });
  };
  StartDaemon();
  FInstallation.OrderFault("hang-paths");
  FGuardian = FInstallation.Run({FInstallation.GuardianPath()});
  EXPECT_TRUE(hears("EXTEND_TIMEOUT_USEC="));
  FGuardian->Signal(SIGTERM);
  EXPECT_TRUE(hears("STOPPING=1"));
  ExpectEnded();
  FInstallation.OrderFault("hang-stop");
  StartGuardian();
  EXPECT_TRUE(hears("READY=1") && hears("WATCHDOG=1"));
  Page("stopdaemon.php");
  EXPECT_TRUE(Eventually(
      [&] { return Contains(FGuardian->Output(), "since this stands still: the watchdog\n"); }));
}

TEST_F(GuardianSystemTest, ShowsEachThreadAndLeavesAReportWhereTheDaemonsLogsAreWhenItCrashes) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the histories take the sanitizer minutes, and it has a thread of its own";
#endif
  ::setenv("VELLUMARK_GUARDIAN_DEBUG", "1", 1);
  StartDaemon();
  StartGuardian();
  ExpectOnPage("Status: Mutex=Y Service=Y Pipe=Y Pulse: ");
  ::unsetenv("VELLUMARK_GUARDIAN_DEBUG");
  const std::string tasks = "/proc/" + std::to_string(FGuardian->Pid()) + "/task";
  EXPECT_TRUE(Eventually([&] {
    // The marks are in the histories of the debug mode.
    std::vector<std::string> wanted = {
        "MainLoop:Wait", "GuardianTimer:Wait",  "Tick.Mutex",          "Tick.Pipe",
        "PipeRead:Wait", "WaitforDataForSock#", "MessageDelivery:Wait"};
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
      wanted.push_back("Thread " + task.path().filename().string() + ", CP: ");
    }
    const std::string page = Page("threadreport.php");
    return std::all_of(wanted.begin(), wanted.end(),
                       [&](const std::string& each) { return Contains(page, each); });
  }));
  EXPECT_TRUE(FInstallation.Folder().Has("home/logs/VellumarkGuardian_Errors.log"));
  FGuardian->Signal(SIGABRT);
  EXPECT_EQ(FGuardian->Wait(), -SIGABRT);
  EXPECT_THAT(FInstallation.Folder().Read("home/logs/VellumarkGuardian_Exceptions.log"),
              HasSubstr("Fatal Signal 6 (SIGABRT)"));
}

}  // namespace
}  // namespace guardian
