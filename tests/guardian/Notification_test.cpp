#include "guardian/Notification.h"

#include <gmock/gmock.h>

#include "common/Environment.h"
#include "common/Texts.h"
#include "support/Eventually.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

// The program writes down what it is told, and runs for as long as there is a file "wait".
TEST(NotificationTest, TellsFourAtATimeLetsSixteenWaitAndSaysWhatWasNotTold) {
  ::setenv("VELLUMARK_GUARDIAN_TEXT", "somebody else's", 1);
  const TTempFolder folder;
  folder.Write(
      "program",
      "#!/bin/sh\ncd '" + folder.Path() +
          "'\ntrap 'echo >>ended; exit' TERM\nenv | grep -a ^VELLUMARK_GUARDIAN | sort >>told\n"
          "while [ -e wait ]; do sleep 0.1; done\nexit 5\n");
  std::filesystem::permissions(folder.Path("program"), std::filesystem::perms::owner_all);
  testing::internal::CaptureStdout();
  {
    TNotifier notifier(folder.Path("program"));
    const auto expectProblem = [&notifier](const std::string& line) {
      std::vector<std::string> problems;
      EXPECT_TRUE(Eventually([&] { return !(problems = notifier.TakeProblems()).empty(); }));
      EXPECT_THAT(problems, testing::ElementsAre(line));
    };
    const std::string failed = "Notification failed: " + folder.Path("program") + ": ";
    const std::string nasty = "$(id) \"'\x01\xff";
    notifier.Tell(TNoticeKind::Released, nasty, std::string(5'000, 's'));
    expectProblem(failed + "exit code 5; notice: " + nasty);
    const std::string status(4'096, 's');
    std::string expected = "_HOST=" + HostName() + "\n_KIND=released\n_STATUS=" + status;
    expected = ReplaceAll(expected + "\n_TEXT=" + nasty + "\n", "_", "VELLUMARK_GUARDIAN_");
    EXPECT_EQ(folder.Read("told"), expected);
    folder.Write("wait", "");
    const auto told = [&] { return folder.Read("told").size() / expected.size(); };
    for (int notice = 0; notice < 21; ++notice) {
      EXPECT_TRUE(notice != 4 || Eventually([&] { return told() == 5; }));
      notifier.Tell(TNoticeKind::Released, nasty, status);
    }
    expectProblem("The notification programs take too long; not told: " + nasty);
    EXPECT_EQ(told(), 5);
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Notices that nobody was told of: 16\n")
      << "and the end waits for no program";
  EXPECT_EQ(folder.Read("ended"), "\n\n\n\n") << "it ends them";
}

}  // namespace
}  // namespace guardian
