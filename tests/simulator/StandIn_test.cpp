#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <list>
#include <string>

#include "DaemonExecutable.h"
#include "support/Program.h"

namespace guardian {
namespace {

// What the tests of the Guardian do not show of its stand-in daemon.
class StandInTest : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::create_directory(FHome.Path("state")); }
  void TearDown() override { EXPECT_EQ(Run("stop").substr(0, 19), "VellumarkCL stopped"); }

  std::unique_ptr<TProgram> Begin(const std::string& word) const {
    return std::make_unique<TProgram>(std::vector<std::string>{DAEMON_EXECUTABLE, word},
                                      std::vector{"VELLUMARKCL_HOME=" + FHome.Path("state")});
  }
  std::string Run(const std::string& word) const {
    const auto program = Begin(word);
    program->Wait();
    return program->Output();
  }
  pid_t Pid() const { return std::stoi(FHome.Read("state/daemon.pid")); }

  TTempFolder FHome;
};

TEST_F(StandInTest, IsOneDetachedDaemonHoweverManyStart) {
  std::list<std::unique_ptr<TProgram>> starts;
  for (int i = 0; i < 6; ++i) starts.push_back(Begin("start"));
  int started = 0;
  for (const auto& start : starts) {
    EXPECT_EQ(start->Wait(), 0);
    if (start->Output() == "VellumarkCL started.\n") ++started;
  }
  EXPECT_EQ(started, 1);
  EXPECT_NE(::getsid(Pid()), ::getsid(0));
  EXPECT_NE(::getsid(Pid()), Pid());
  for (const auto& entry :
       std::filesystem::directory_iterator("/proc/" + std::to_string(Pid()) + "/fd")) {
    const std::string file = std::filesystem::read_symlink(entry).string();
    const bool own = file == "/dev/null" || file.starts_with(FHome.Path("state/")) ||
                     file.starts_with("anon_inode:") || file.starts_with("socket:");
    EXPECT_TRUE(own) << file;
  }
}

// The number in an unlocked file may be anybody's by now: here it is the test's own.
TEST_F(StandInTest, NeverSignalsTheProcessOfAStalePidFile) {
  FHome.Write("state/daemon.pid", std::to_string(::getpid()) + "\n");
  EXPECT_EQ(Run("stop"), "VellumarkCL is not running.\n");
  EXPECT_EQ(Run("start"), "VellumarkCL started.\n");
  EXPECT_NE(Pid(), ::getpid());
}

}  // namespace
}  // namespace guardian
