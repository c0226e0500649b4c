#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "system/GuardianFixture.h"

namespace guardian {
namespace {

// The user nobody: one without a name, or with digits in it, is taken for the daemon's number in
// the process list.
constexpr uid_t kUser = 65'534;

// The Guardian as an ordinary user.
class LeastPrivilegeTest : public GuardianSystemTest {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
    GuardianSystemTest::SetUp();
    const std::string folder = FInstallation.Folder().Path();
    ASSERT_EQ(::chown(folder.c_str(), kUser, kUser), 0);
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
      ASSERT_EQ(::chown(entry.path().c_str(), kUser, kUser), 0) << entry;
    }
  }

  std::unique_ptr<TProgram> AsUser(const std::vector<std::string>& arguments) const {
    std::vector<std::string> line{"/usr/bin/setpriv", "--reuid=" + std::to_string(kUser),
                                  "--regid=" + std::to_string(kUser), "--clear-groups"};
    line.insert(line.end(), arguments.begin(), arguments.end());
    return FInstallation.Run(std::move(line), {"FAST_GUARDIAN_FACTOR=20"});
  }
  void StartGuardianAsUser() {
    FGuardian = AsUser({FInstallation.GuardianPath()});
    ASSERT_TRUE(Eventually([] { return !Page("status.php").empty(); })) << FGuardian->Output();
  }
  void StartDaemonAsUser() const {
    EXPECT_EQ(AsUser({FInstallation.DaemonPath(), "start"})->Wait(), 0);
  }
};

TEST_F(LeastPrivilegeTest, SupervisesAsTheOrdinaryUserWhoOwnsTheDaemon) {
  StartGuardianAsUser();
  ExpectAnotherDaemon(0);
  struct stat process {};
  ASSERT_EQ(::stat(("/proc/" + std::to_string(FInstallation.DaemonPid())).c_str(), &process), 0);
  EXPECT_EQ(process.st_uid, kUser);
  ExpectOnPage("Running as user ID: " + std::to_string(kUser));
  for (const char* page : {"terminatedaemon.php", "killdaemon.php"}) {
    ExpectOnPage("MutexOK=Y, PipeStatusOK=Y, ServiceOK=Y, PID=" +
                 std::to_string(FInstallation.DaemonPid()));
    const pid_t ordered = FInstallation.DaemonPid();
    EXPECT_NE(Page(page), "");
    ExpectAnotherDaemon(ordered);
  }
  EXPECT_THAT(Page("vellumark_logs/daemon.log"), testing::HasSubstr("Started"));
  Page("terminateguardian.php");
  ExpectEnded();
}

TEST_F(LeastPrivilegeTest, SaysWhatItMayNotDo) {
  struct TRefusal {
    bool DaemonRuns;
    const char* Locked;
    const char* Page;
    std::string Message;
  };
  for (const TRefusal& refusal : {
           TRefusal{true, "home/logs", "logfiles.php", "logs: Permission denied"},
           {true, "home/mutex", "", "schedulermutex.lock: Permission denied"},
           {false, "tmp", "", "Permission denied"},
           {false, "bin/VellumarkCL", "",
            " start, Result: /bin/sh: 1: " + FInstallation.DaemonPath() + ": Permission denied"},
       }) {
    SCOPED_TRACE(refusal.Locked);
    const std::string path = FInstallation.Folder().Path(refusal.Locked);
    if (refusal.DaemonRuns) StartDaemonAsUser();
    ASSERT_EQ(::chmod(path.c_str(), 0), 0);
    StartGuardianAsUser();
    ExpectOnPage(refusal.Message, refusal.Page);
    EXPECT_EQ(Page("terminateguardian.php"), "Guardian stopped.");
    EXPECT_EQ(FGuardian->Wait(), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0700), 0);
    EXPECT_EQ(FInstallation.KillDaemon(), refusal.DaemonRuns);
  }
}

// A daemon of somebody else.
TEST_F(LeastPrivilegeTest, SaysThatADaemonOfSomebodyElseCannotBeSignalled) {
  StartDaemon();
  const std::string others = std::to_string(FInstallation.DaemonPid());
  StartGuardianAsUser();
  ExpectOnPage("PID=" + others);
  for (const auto& [page, command] : {std::pair{"terminatedaemon.php", "kill " + others},
                                      {"killdaemon.php", "kill -9 " + others}}) {
    EXPECT_NE(Page(page), "");
    ExpectOnPage("Executed " + command + ", Result: /bin/sh: 1: kill: Operation not permitted");
  }
  EXPECT_EQ(std::to_string(FInstallation.DaemonPid()), others);
  EXPECT_TRUE(FInstallation.DaemonRuns());
}

}  // namespace
}  // namespace guardian
