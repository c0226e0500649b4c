#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "system/GuardianFixture.h"

namespace guardian {
namespace {

using testing::HasSubstr;

// The user nobody: one without a name, or with digits in it, is taken for the daemon's number in
// the process list.
constexpr uid_t kUser = 65'534;

// The Guardian as an ordinary user, with time that runs ten times as fast.
class LeastPrivilegeTest : public GuardianSystemTest {
 protected:
  LeastPrivilegeTest() : GuardianSystemTest(FAST_GUARDIAN_EXECUTABLE) {}

  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
    GuardianSystemTest::SetUp();
    GiveAway(FFolder.Path());
    for (const auto& entry : std::filesystem::recursive_directory_iterator(FFolder.Path())) {
      GiveAway(entry.path());
    }
  }

  static void GiveAway(const std::string& path) {
    ASSERT_EQ(::chown(path.c_str(), kUser, kUser), 0) << path;
  }

  // Root's, and nobody else may do anything with it.
  void Lock(const std::string& name) const {
    std::filesystem::create_directories(FFolder.Path(name));
    ASSERT_EQ(::chown(FFolder.Path(name).c_str(), 0, 0), 0);
    ASSERT_EQ(::chmod(FFolder.Path(name).c_str(), 0700), 0);
  }

  std::unique_ptr<TProgram> AsUser(const std::vector<std::string>& arguments) const {
    std::vector<std::string> command{"/usr/bin/setpriv", "--reuid=" + std::to_string(kUser),
                                     "--regid=" + std::to_string(kUser), "--clear-groups"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<TProgram>(
        std::move(command),
        std::vector<std::string>{"VELLUMARKCL_HOME=" + Home(), "TMPDIR=" + FFolder.Path("tmp")});
  }

  void StartGuardianAsUser() {
    FGuardian = AsUser({FFolder.Path("VellumarkGuardian")});
    ASSERT_TRUE(GuardianAnswers());
  }

  void StartDaemonAsUser() const {
    const auto start = AsUser({FFolder.Path("VellumarkCL"), "start"});
    ASSERT_EQ(start->Wait(), 0) << start->Output();
  }

  // The page's order ends the healthy daemon, and the Guardian brings another.
  void ExpectDaemonReplacedBy(const std::string& page) const {
    EXPECT_TRUE(Eventually([] { return PageHas("MutexOK=Y, PipeStatusOK=Y, ServiceOK=Y"); }));
    const pid_t ordered = DaemonPid();
    Page(page);
    EXPECT_TRUE(AnotherDaemonRuns(ordered)) << page << Page("");
  }

  // The page's order leads to the command, which may not do what it should.
  static void ExpectRefused(const std::string& page, const std::string& command) {
    Page(page);
    EXPECT_TRUE(Eventually([&] {
      return PageHas("Executed " + command + ", Result: /bin/sh: 1: kill: Operation not permitted");
    })) << Page("");
  }

  // The real and effective user of a process.
  static std::array<uid_t, 2> UsersOf(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::array<uid_t, 2> users{};
    for (std::string word; status >> word;) {
      if (word == "Uid:") status >> users[0] >> users[1];
    }
    return users;
  }
};

TEST_F(LeastPrivilegeTest, SupervisesAsTheOrdinaryUserWhoOwnsTheDaemon) {
  constexpr std::array<uid_t, 2> kUsers{kUser, kUser};
  StartGuardianAsUser();
  EXPECT_EQ(UsersOf(FGuardian->Pid()), kUsers);
  ASSERT_TRUE(AnotherDaemonRuns(0)) << Page("");
  EXPECT_EQ(UsersOf(DaemonPid()), kUsers);

  const pid_t before = DaemonPid();
  KillDaemon();
  ASSERT_TRUE(AnotherDaemonRuns(before)) << Page("");
  ExpectDaemonReplacedBy("terminatedaemon.php");
  ExpectDaemonReplacedBy("killdaemon.php");
}

TEST_F(LeastPrivilegeTest, ShowsItsPagesToAnOrdinaryUser) {
  StartDaemonAsUser();
  StartGuardianAsUser();
  EXPECT_TRUE(PageHas("Running as user ID: " + std::to_string(kUser)));
  EXPECT_THAT(Page("logfiles.php"), HasSubstr("daemon.log"));
  EXPECT_THAT(Page("vellumark_logs/daemon.log"), HasSubstr("Started"));
  EXPECT_THAT(Page("threadreport.php"), HasSubstr("Number of threads: "));

  Page("terminateguardian.php");
  EXPECT_EQ(FGuardian->Wait(), 0);
  ExpectNothingLeft();
}

TEST_F(LeastPrivilegeTest, SaysThatTheLogFolderCannotBeRead) {
  StartDaemonAsUser();
  Lock("home/logs");
  StartGuardianAsUser();
  EXPECT_THAT(Page("logfiles.php"), HasSubstr("logs: Permission denied"));
}

TEST_F(LeastPrivilegeTest, SaysThatTheMutexFolderCannotBeReached) {
  StartDaemonAsUser();
  Lock("home/mutex");
  StartGuardianAsUser();
  EXPECT_TRUE(Eventually([] { return PageHas("schedulermutex.lock: Permission denied"); }))
      << Page("");
}

TEST_F(LeastPrivilegeTest, SaysThatTheTempFolderCannotBeWritten) {
  Lock("tmp");
  StartGuardianAsUser();
  EXPECT_TRUE(Eventually([] { return PageHas("Permission denied"); })) << Page("");
}

TEST_F(LeastPrivilegeTest, SaysThatTheDaemonCannotBeExecuted) {
  ASSERT_EQ(::chmod(DaemonPath().c_str(), 0600), 0);
  StartGuardianAsUser();
  EXPECT_TRUE(Eventually([&] {
    return PageHas(" start, Result: /bin/sh: 1: " + DaemonPath() + ": Permission denied");
  })) << Page("");
}

TEST_F(LeastPrivilegeTest, SaysThatADaemonOfSomebodyElseCannotBeSignalled) {
  StartDaemon();
  const pid_t others = DaemonPid();
  StartGuardianAsUser();
  ASSERT_TRUE(Eventually([&] { return PageHas("PID=" + std::to_string(others)); })) << Page("");
  ExpectRefused("terminatedaemon.php", "kill " + std::to_string(others));
  ExpectRefused("killdaemon.php", "kill -9 " + std::to_string(others));
  EXPECT_EQ(DaemonPid(), others);
  EXPECT_TRUE(DaemonRuns());
}

}  // namespace
}  // namespace guardian
