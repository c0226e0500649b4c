#pragma once

#include <algorithm>

#include "support/TestSupport.h"
#include "system/Installation.h"
#include "webstatus/RawClient.h"

namespace guardian {

// The Guardian over the stand-in daemon, with time that runs faster: a round is half a second.
class GuardianSystemTest : public testing::Test {
 protected:
  explicit GuardianSystemTest(const char* executable = FAST_GUARDIAN_EXECUTABLE)
      : FInstallation(executable) {}

  void SetUp() override { ASSERT_EQ(Page("status.php"), "") << "port 8900 is in use"; }

  void StartDaemon() const {
    const auto start = FInstallation.Run({FInstallation.DaemonPath(), "start"});
    ASSERT_EQ(start->Wait(), 0) << start->Output();
  }
  void StartGuardian() { StartGuardianBy({FInstallation.GuardianPath()}); }
  void StartGuardianBy(const std::vector<std::string>& line) {
    FGuardian = FInstallation.Run(line, {"FAST_GUARDIAN_FACTOR=20"});
    ASSERT_TRUE(Eventually([] { return !Page("status.php").empty(); })) << FGuardian->Output();
  }

  // Runs the Guardian's command word to its end and returns what it printed.
  std::string Command(const std::string& word, int exitStatus = 0) const {
    const auto command = FInstallation.Run({FInstallation.GuardianPath(), word});
    EXPECT_EQ(command->Wait(std::chrono::seconds(60)), exitStatus) << word;
    return command->Output();
  }

  static void ExpectOnPage(const std::string& text, const std::string& page = {}) {
    const auto isThere = [&] { return Contains(Page(page), text); };
    EXPECT_TRUE(Eventually(isThere, kHangLimit)) << text << "\n" << Page(page);
  }
  void ExpectAnotherDaemon(pid_t before) const {
    const auto anotherRuns = [&] {
      const pid_t now = FInstallation.DaemonPid();
      return now != before && TInstallation::Runs(now);
    };
    EXPECT_TRUE(Eventually(anotherRuns, kHangLimit)) << Page("");
  }

  // What an end in order leaves.
  void ExpectEnded() {
    EXPECT_EQ(FGuardian->Wait(), 0);
    EXPECT_EQ(Page("status.php"), "");
    EXPECT_EQ(FInstallation.DetachedGuardian(), 0);
    EXPECT_TRUE(std::filesystem::is_empty(FInstallation.Folder().Path("tmp")));
  }

  static constexpr std::chrono::seconds kHangLimit{90};
  const TInstallation FInstallation;
  std::unique_ptr<TProgram> FGuardian;
};

}  // namespace guardian
