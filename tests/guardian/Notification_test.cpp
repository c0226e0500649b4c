#include "guardian/Notification.h"

#include <gmock/gmock.h>

#include "common/Environment.h"
#include "common/Texts.h"
#include "support/Eventually.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

using testing::ElementsAre;

class NotificationTest : public testing::Test {
 protected:
  std::string Install(const std::string& text) const {
    FFolder.Write("program", "#!/bin/sh\ncd '" + FFolder.Path() + "'\n" + text);
    std::filesystem::permissions(FFolder.Path("program"), std::filesystem::perms::owner_all);
    return FFolder.Path("program");
  }
  static std::vector<std::string> ProblemsOf(TNotifier& notifier) {
    std::vector<std::string> problems;
    EXPECT_TRUE(Eventually([&] { return !(problems = notifier.TakeProblems()).empty(); }));
    return problems;
  }

  const TTempFolder FFolder;
  const std::string FFailed = "Notification failed: " + FFolder.Path("program") + ": ";
};

TEST_F(NotificationTest, HandsOverItsOwnEnvironmentAndSaysWhatWentWrong) {
  ::setenv("VELLUMARK_GUARDIAN_TEXT", "somebody else's", 1);
  TNotifier notifier(Install("env | grep -a ^VELLUMARK_GUARDIAN | sort >told; exit 5\n"));
  const std::string nasty = "$(id) \"'\x01\xff";
  notifier.Tell(TNoticeKind::Released, nasty, std::string(5'000, 's'));
  EXPECT_THAT(ProblemsOf(notifier), ElementsAre(FFailed + "exit code 5; not told: " + nasty));
  std::string expected = "_HOST=" + HostName() + "\n_KIND=released\n_STATUS=";
  expected += std::string(4'096, 's') + "\n_TEXT=" + nasty + "\n";
  EXPECT_EQ(FFolder.Read("told"), ReplaceAll(expected, "_", "VELLUMARK_GUARDIAN_"));
  FFolder.Write("program", "no program any more");
  notifier.Tell(TNoticeKind::Held, "x", "");
  EXPECT_THAT(ProblemsOf(notifier),
              ElementsAre(FFailed + "Exec format error (errno 8); not told: x"));
}

// The programs run until their folder is gone: the notifier's end waits for none.
TEST_F(NotificationTest, RunsFourAtATimeLetsSixteenWaitAndSaysWhatIsDropped) {
  const auto told = [this] { return FFolder.Read("told"); };
  testing::internal::CaptureStdout();
  {
    TNotifier notifier(Install("echo >>told; while [ -e program ]; do sleep 0.1; done\n"));
    for (int notice = 0; notice < 21; ++notice) {
      EXPECT_TRUE(notice != 4 || Eventually([&] { return told() == "\n\n\n\n"; }));
      notifier.Tell(TNoticeKind::Error, "x", "");
    }
    EXPECT_THAT(ProblemsOf(notifier),
                ElementsAre("The notification programs take too long; not told: x"));
    EXPECT_EQ(told(), "\n\n\n\n");
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Notices that nobody was told of: 16\n");
}

}  // namespace
}  // namespace guardian
