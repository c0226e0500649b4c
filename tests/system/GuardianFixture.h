#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "DaemonExecutable.h"
#include "common/Exceptions.h"
#include "support/Eventually.h"
#include "support/Program.h"
#include "support/TempFolder.h"
#include "webstatus/HttpClient.h"

namespace guardian {

// Each test has both executables side by side in a folder of its own, as an installation has them.
class GuardianSystemTest : public testing::Test {
 protected:
  explicit GuardianSystemTest(std::string guardian = GUARDIAN_EXECUTABLE)
      : FExecutable(std::move(guardian)) {}

  void SetUp() override {
    ASSERT_EQ(Page("status.php"), "") << "port 8900 is in use";
    std::filesystem::copy_file(FExecutable, FFolder.Path("VellumarkGuardian"));
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
  std::string DaemonPath() const { return FFolder.Path("VellumarkCL"); }
  // Withdraws the faults ordered before; none withdraws them all.
  void OrderFault(const std::string& words) const { FFolder.Write("home/faults", words + "\n"); }
  bool DaemonLogHas(const std::string& text) const {
    return FFolder.Read("home/logs/daemon.log").find(text) != std::string::npos;
  }

  std::unique_ptr<TProgram> Guardian(const std::vector<std::string>& words) const {
    std::vector<std::string> line{FFolder.Path("VellumarkGuardian")};
    line.insert(line.end(), words.begin(), words.end());
    return std::make_unique<TProgram>(
        std::move(line),
        std::vector<std::string>{"VELLUMARKCL_HOME=" + Home(), "TMPDIR=" + FFolder.Path("tmp")});
  }

  // Runs the Guardian's command word to its end and returns what it printed.
  std::string Command(const std::string& word, int exitStatus = 0) const {
    const auto command = Guardian({word});
    EXPECT_EQ(command->Wait(std::chrono::seconds(60)), exitStatus) << word;
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
  bool AnotherDaemonRuns(pid_t before,
                         std::chrono::seconds limit = std::chrono::seconds(30)) const {
    return Eventually([&] { return DaemonRuns() && DaemonPid() != before; }, limit);
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

  // Whether so many commands hang or have hung, which means that the Guardian waits for the last of
  // them. The thread sanitizer may lose a signal that comes before a thread has ever waited.
  bool CommandsHang(int count) const {
    const std::string log = FFolder.Read("home/logs/daemon.log");
    std::size_t at = 0;
    for (; count > 0 && at != std::string::npos; --count) at = log.find("A command hangs", at + 1);
    return at != std::string::npos;
  }

  void ExpectNothingLeft() const {
    EXPECT_EQ(Page("status.php"), "");
    EXPECT_EQ(DetachedGuardian(), 0);
    EXPECT_TRUE(std::filesystem::is_empty(FFolder.Path("tmp")));
  }

  const std::string FExecutable;
  const TTempFolder FFolder;
  std::unique_ptr<TProgram> FGuardian;
};

}  // namespace guardian
