#include <unistd.h>

#include "system/GuardianFixture.h"

namespace guardian {
namespace {

// The user nobody: one without a name, or with digits in it, is taken for the daemon's number in
// the process list.
constexpr uid_t kUser = 65'534;

// What the test starts, it starts as an ordinary user.
class LeastPrivilegeTest : public GuardianSystemTest {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become somebody else";
    GuardianSystemTest::SetUp();
    const std::string folder = FInstallation.Folder().Path();
    const auto give = FInstallation.Run({"/usr/bin/chown", "-R", std::to_string(kUser), folder});
    ASSERT_EQ(give->Wait(), 0);
    Become(kUser);
  }
  void TearDown() override {
    if (!IsSkipped()) Become(0);
  }
  // Keeps the way back to root, which a program that is started has not.
  static void Become(uid_t user) {
    ASSERT_EQ(::setresgid(user, user, 0), 0);
    ASSERT_EQ(::setresuid(user, user, 0), 0);
  }
};

TEST_F(LeastPrivilegeTest, SupervisesAsTheOrdinaryUserWhoOwnsTheDaemon) {
  StartGuardian();
  ExpectOnPage("Running as user ID: " + std::to_string(kUser));
  ExpectOnPage("MutexOK=Y, PipeStatusOK=Y, ServiceOK=Y");
  const pid_t ordered = FInstallation.DaemonPid();
  EXPECT_NE(Page("killdaemon.php"), "");
  ExpectAnotherDaemon(ordered);
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
    if (refusal.DaemonRuns) StartDaemon();
    ASSERT_EQ(::chmod(path.c_str(), 0), 0);
    StartGuardian();
    ExpectOnPage(refusal.Message, refusal.Page);
    Page("terminateguardian.php");
    EXPECT_EQ(FGuardian->Wait(), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0700), 0);
    EXPECT_EQ(FInstallation.KillDaemon(), refusal.DaemonRuns);
  }
}

TEST_F(LeastPrivilegeTest, SaysThatADaemonOfSomebodyElseCannotBeSignalled) {
  Become(0);
  StartDaemon();
  Become(kUser);
  StartGuardian();
  const std::string others = std::to_string(FInstallation.DaemonPid());
  ExpectOnPage("PID=" + others);
  for (const auto& [page, command] : {std::pair{"terminatedaemon.php", "kill " + others},
                                      {"killdaemon.php", "kill -9 " + others}}) {
    EXPECT_NE(Page(page), "");
    ExpectOnPage("Executed " + command + ", Result: /bin/sh: 1: kill: Operation not permitted");
  }
  EXPECT_EQ(std::to_string(FInstallation.DaemonPid()), others);
}

}  // namespace
}  // namespace guardian
