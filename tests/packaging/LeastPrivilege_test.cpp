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
    ASSERT_EQ(::setresgid(kUser, kUser, kUser), 0);
    Become(kUser);
  }
  void TearDown() override {
    if (!IsSkipped()) Become(0);
  }
  // Keeps the way back to root, which a program that is started has not.
  static void Become(uid_t user) { ASSERT_EQ(::setresuid(user, user, 0), 0); }
};

TEST_F(LeastPrivilegeTest, SupervisesTheDaemonOfItsUserAndSaysWhatItMayNotDo) {
  for (const auto& [locked, page, message] : std::vector<std::array<std::string, 3>>{
           {"home/logs", "logfiles.php", "logs: Permission denied"},
           {"home/mutex", "", "schedulermutex.lock: Permission denied"},
           {"tmp", "", "MutexOK=Y, PipeStatusOK=Y, ServiceOK=Y"},
           {"bin/VellumarkCL", "", "bin/VellumarkCL: Permission denied"},
       }) {
    SCOPED_TRACE(locked);
    const std::string path = FInstallation.Folder().Path(locked);
    StartDaemon();
    ASSERT_EQ(::chmod(path.c_str(), 0), 0);
    StartGuardian();
    ExpectOnPage(message, page);
    EXPECT_EQ(locked == "tmp", Contains(FGuardian->Output(), "tmp cannot be used: Permission"));
    if (locked == "tmp") {
      const pid_t ordered = FInstallation.DaemonPid();
      Page("killdaemon.php");
      ExpectAnotherDaemon(ordered);
    }
    Page("terminateguardian.php");
    EXPECT_EQ(FGuardian->Wait(), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0700), 0);
    EXPECT_TRUE(FInstallation.KillDaemon());
  }
}

TEST_F(LeastPrivilegeTest, SaysThatADaemonOfSomebodyElseCannotBeSignalled) {
  Become(0);
  StartDaemon();
  Become(kUser);
  StartGuardian();
  const std::string others = std::to_string(FInstallation.DaemonPid());
  ExpectOnPage("PID=" + others);
  Page("killdaemon.php");
  ExpectOnPage("Executed kill -9 " + others +
               ", Result: /bin/sh: 1: kill: Operation not permitted");
}

}  // namespace
}  // namespace guardian
