#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/Clock.h"
#include "common/Exceptions.h"
#include "support/Eventually.h"
#include "support/Program.h"
#include "support/TempFolder.h"
#include "webstatus/http_client.h"

namespace guardian {
namespace {

using testing::AnyOf;
using testing::HasSubstr;
using testing::StartsWith;

// Each test has both executables side by side in a folder of its own, as an installation has them.
class GuardianSystemTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(Page("status.php"), "") << "port 8900 is in use";
    std::filesystem::copy_file(GUARDIAN_EXECUTABLE, FFolder.Path("VellumarkGuardian"));
    std::filesystem::copy_file(DAEMON_EXECUTABLE, FFolder.Path("VellumarkCL"));
    std::filesystem::create_directories(Home());
    std::filesystem::create_directories(FFolder.Path("tmp"));
  }

  void TearDown() override {
    FGuardian.reset();
    const pid_t detached = DetachedGuardian();
    if (detached != 0) ::kill(detached, SIGKILL);
    // A restart may be under way: whoever holds the daemon's place is ended, at most thrice.
    for (int round = 0; round < 3 && DaemonRuns(); ++round) KillDaemon();
    EXPECT_FALSE(DaemonRuns());
  }

  std::string Home() const { return FFolder.Path("home"); }
  void OrderFault(const std::string& word) const { FFolder.Write("home/faults", word + "\n"); }

  std::unique_ptr<TProgram> Guardian(std::vector<std::string> words) const {
    words.insert(words.begin(), FFolder.Path("VellumarkGuardian"));
    return std::make_unique<TProgram>(
        std::move(words),
        std::vector<std::string>{"VELLUMARKCL_HOME=" + Home(), "TMPDIR=" + FFolder.Path("tmp")});
  }

  // Runs the Guardian's command word to its end and returns what it printed.
  std::string Command(const std::string& word) const {
    const auto command = Guardian({word});
    EXPECT_EQ(command->Wait(), 0) << word;
    return command->Output();
  }

  void StartGuardian() { FGuardian = Guardian({}); }

  void StartDaemon() const {
    TProgram start({FFolder.Path("VellumarkCL"), "start"}, {"VELLUMARKCL_HOME=" + Home()});
    ASSERT_EQ(start.Wait(), 0) << start.Output();
  }

  // The page's text; empty when nobody answers.
  static std::string Page(const std::string& name) {
    try {
      return HttpGet("localhost:8900/" + name, std::chrono::seconds(60)).Body;
    } catch (const SoftException&) {
      return {};
    }
  }
  static bool PageHas(const std::string& text) { return Page("").find(text) != std::string::npos; }
  static bool GuardianAnswers() {
    return Eventually([] { return !Page("status.php").empty(); });
  }

  // The pid that the daemon wrote; 0 for none.
  pid_t DaemonPid() const {
    std::ifstream file(Home() + "/daemon.pid");
    pid_t pid = 0;
    file >> pid;
    return pid;
  }
  bool DaemonRuns() const { return DaemonPid() != 0 && ::kill(DaemonPid(), 0) == 0; }
  void KillDaemon() const {
    const pid_t pid = DaemonPid();
    ASSERT_GT(pid, 1);
    ::kill(pid, SIGKILL);
    EXPECT_TRUE(Eventually([&] { return ::kill(pid, 0) != 0; }));
  }
  bool AnotherDaemonRuns(pid_t before) const {
    return Eventually([&] { return DaemonRuns() && DaemonPid() != before; });
  }

  // The Guardian that made itself a daemon: the process that runs this folder's executable.
  pid_t DetachedGuardian() const {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      std::error_code error;
      const auto target = std::filesystem::read_symlink(entry.path() / "exe", error);
      if (!error && target == FFolder.Path("VellumarkGuardian")) {
        return std::atoi(entry.path().filename().c_str());
      }
    }
    return 0;
  }

  void ExpectNothingLeft() const {
    EXPECT_EQ(Page("status.php"), "");
    EXPECT_EQ(DetachedGuardian(), 0);
    EXPECT_TRUE(std::filesystem::is_empty(FFolder.Path("tmp")));
  }

  const TTempFolder FFolder;
  std::unique_ptr<TProgram> FGuardian;
};

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
  EXPECT_EQ(FGuardian->Wait(), 0);
  ExpectNothingLeft();
  EXPECT_TRUE(DaemonRuns()) << "the daemon outlives the Guardian";
  EXPECT_THAT(FGuardian->Output(),
              StartsWith("Vellumark Guardian (Silent Mode)\nInitial Output: TMP=" + Home()));
  EXPECT_THAT(FGuardian->Output(), HasSubstr("\nWeb Status Server Active on Port 8900\n"));
}

TEST_F(GuardianSystemTest, SaysThatNobodyRuns) {
  EXPECT_EQ(Command("status"),
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
  for (const int number : {SIGTERM, SIGINT}) {
    StartGuardian();
    ASSERT_TRUE(Eventually([&] { return !std::filesystem::is_empty(FFolder.Path("tmp")); }));
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
  ASSERT_TRUE(Eventually([&] { return !std::filesystem::is_empty(FFolder.Path("tmp")); }));
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
  EXPECT_TRUE(Eventually([&] {
    return FFolder.Read("home/logs/daemon.log").find("Command received: msgStartTimer") !=
           std::string::npos;
  })) << FFolder.Read("home/logs/daemon.log");
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
