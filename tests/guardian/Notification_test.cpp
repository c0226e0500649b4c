#include "guardian/Notification.h"

#include "common/Environment.h"
#include "support/TestSupport.h"

namespace guardian {
namespace {

// The only problem that there is, once there is one.
std::string Problem(TNotifier& notifier) {
  std::vector<std::string> problems;
  EXPECT_TRUE(Eventually([&] { return !(problems = notifier.TakeProblems()).empty(); }));
  return problems.size() == 1 ? problems[0] : "";
}

// The program writes down what it is told, and runs for as long as there is a file "wait".
TEST(NotificationTest, TellsFourAtATimeLetsSixteenWaitAndSaysWhatWasNotTold) {
  ::setenv("VELLUMARK_GUARDIAN_TEXT", "somebody else's", 1);
  ::setenv("VELLUMARK_GUARDIAN_K", "a", 1);
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
    const std::string nasty = "$(id) \"'\x01\xff";
    const std::string status(4'096, 's');
    std::string expected;
    for (int kinds = 0;
         const char* const kind : {"error", "warning", "recovered", "held", "released"}) {
      notifier.Tell(TNoticeKind{kinds++}, nasty, status + "s");
      EXPECT_EQ(Problem(notifier), "Notification failed: " + folder.Path("program") +
                                       ": exit code 5; notice: " + nasty);
      expected += ReplaceAll("_HOST=" + HostName() + "\n_K=a\n_KIND=" + kind +
                                 "\n_STATUS=" + status + "\n_TEXT=" + nasty + "\n",
                             "_", "VELLUMARK_GUARDIAN_");
    }
    EXPECT_EQ(folder.Read("told"), expected);
    folder.Write("wait", "");
    const auto told = [&] { return folder.Read("told").size() * 5 / expected.size(); };
    for (int notice = 0; notice < 40; ++notice) {
      EXPECT_TRUE(notice != 4 || Eventually([&] { return told() == 9; }));
      notifier.Tell(TNoticeKind::Recovered, nasty, status);
    }
    const std::string lost = "The notification programs take too long; not told: " + nasty;
    EXPECT_EQ(notifier.TakeProblems(), std::vector<std::string>(16, lost));
    EXPECT_EQ(told(), 9);
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Notices that nobody was told of: 16\n")
      << "and the end waits for no program";
  EXPECT_EQ(folder.Read("ended"), "\n\n\n\n") << "it ends them";
}

TEST(NotificationTest, TellsNobodyWithoutAProgramAndSaysWhyOneCannotRun) {
  const TTempFolder folder;
  folder.Write("unfit", "");
  InThread([] {});  // The thread sanitizer then has its own.
  const int threads = CountThreads("");
  const std::string unfit = folder.Path("unfit");
  for (const std::string& program :
       {std::string(), folder.Path(), unfit, std::filesystem::relative(unfit).string()}) {
    testing::internal::CaptureStdout();
    {
      TNotifier notifier(program);
      EXPECT_TRUE(Eventually([&] { return CountThreads("") == threads; }));
      for (int notice = 0; notice < 40; ++notice) notifier.Tell(TNoticeKind::Error, "", "");
      EXPECT_THAT(notifier.TakeProblems(), testing::IsEmpty());
    }
    const std::string said = testing::internal::GetCapturedStdout();
    EXPECT_EQ(said.ends_with(" executable file, so nobody is notified: " + program + "\n"),
              !program.empty());
    if (program == unfit) std::filesystem::permissions(unfit, std::filesystem::perms::owner_all);
  }
  TNotifier notifier(unfit);
  notifier.Tell(TNoticeKind::Error, "n", "");
  EXPECT_EQ(Problem(notifier),
            "Notification failed: " + unfit + ": Exec format error (errno 8); notice: n");
}

}  // namespace
}  // namespace guardian
