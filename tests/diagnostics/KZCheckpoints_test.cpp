#include "diagnostics/KZCheckpoints.h"

#include "diagnostics/KZCriticalSection.h"
#include "diagnostics/checkpoints/CheckpointProfile.h"
#include "diagnostics/checkpoints/CheckpointRecord.h"
#include "diagnostics/checkpoints/ThreadReport.h"
#include "support/TestSupport.h"

namespace guardian {
namespace {

class KZCheckpointsTest : public testing::Test {
 protected:
  KZCheckpointsTest() { KZCP::Init(); }
  ~KZCheckpointsTest() override {
    KZCP::RemoveThread(KZCP::TRemoval::Forced);
    KZCP::Fini();
    ::new (&KZCP::Switches()) TCheckpointSwitches;
  }

  static std::string Report() { return KZCP::ThreadReport(KZCP::TReportHeader::Without); }

  const TSettingsBackup FSettings;
};

TEST_F(KZCheckpointsTest, ReportsEveryThreadAndTheLockItWaitsFor) {
  const std::string mainId = std::to_string(CurrentThreadId());
  KZCP::Checkpoint("at work");
  TKZCriticalSection store("Store");
  const TKZLockGuard once(store);
  const TKZLockGuard twice(store);
  std::atomic<std::int32_t> waiterId = 0;
  TCrew waiter(1, [&](int) KZ_NO_ANALYSIS {
    waiterId = CurrentThreadId();
    KZCP::Checkpoint("before the lock");
    KZCP::SetAllowance(120);
    store.Leave();  // It is not this thread's to leave.
    const TKZLockGuard lock(store);
  });
  EXPECT_TRUE(Eventually([] { return CountOf(Report(), "Waiting for CS") == 1; }));
  const std::string report = KZCP::ThreadReport(KZCP::TReportHeader::With);
  EXPECT_THAT(report, StartsWith("Thread Report\n-----------------\nMain thread ID: " + mainId +
                                 ", CP: at work\nPerformance Counter Resolution: 1000 ticks per "
                                 "second.\n\nNumber of threads: 2\nThread "));
  EXPECT_THAT(report, HasSubstr("\nThread " + mainId + ", CP: at work\n"));
  EXPECT_THAT(report, HasSubstr("\nThread " + std::to_string(waiterId) +
                                ", CP: before the lock\nWaiting for CS Store owned by thread #" +
                                mainId + "\n"));
  EXPECT_EQ(KZCP::CurrentCP(waiterId), "before the lock");
  EXPECT_GT(KZCP::CPTime(waiterId).CPTime, 0);
  EXPECT_EQ(KZCP::CPTime(waiterId).PreviousCPTime, 120);
  KZCP::ReleaseRogueLocks();
  waiter.Join();
  EXPECT_EQ(KZCP::CurrentCP(waiterId), "N/A");
  EXPECT_EQ(KZCP::CPTime(waiterId).CPTime, 0);
}

TEST_F(KZCheckpointsTest, ListsAThreadFromItsCheckpointsOnWhileTheListComesAndGoes) {
  const auto pass = [](const std::string& text) { return [text] { KZCP::Checkpoint(text); }; };
  const auto leave = [](bool messageBox, KZCP::TRemoval removal) {
    return [messageBox, removal] {
      KZCP::SetMessageBoxFlag(messageBox);
      KZCP::RemoveThread(removal);
      KZCP::SetMessageBoxFlag(false);
    };
  };
  const auto renewList = [] {
    KZCP::Fini();
    KZCP::Init();
  };
  const TShortString two{2, {'s', 's', 's'}};
  const char16_t halves[] = {u'a', 0xDC00, 0xD83D, u'\u20AC', 0xD83D};
  const std::string repaired = "a\uFFFD\uFFFD\u20AC\uFFFD";
  const std::string clipped(255, 'x');
  const std::tuple<std::function<void()>, std::string, bool> steps[] = {
      {pass("one"), "one", true},
      {[] { KZCP::Init(); }, "one", true},
      {leave(true, KZCP::TRemoval::Normal), "one", true},
      {leave(true, KZCP::TRemoval::Forced), "one", false},
      {pass(clipped + "y"), clipped, true},
      {leave(false, KZCP::TRemoval::Normal), clipped, false},
      {[&] { KZCP::Checkpoint(std::u16string_view(halves, 5)); }, repaired, true},
      {renewList, repaired, false},
      {[&] { KZCP::Checkpoint(two); }, "ss", true},
      {[] { InThread([] { KZCP::Checkpoint("short life"); }); }, "ss", true},
  };
  const std::string thread = "Thread " + std::to_string(CurrentThreadId()) + ", CP: ";
  for (const auto& [act, cp, listed] : steps) {
    act();
    const std::string line = listed ? "1\n" + thread + cp + "\n" : "0\n";
    EXPECT_THAT(Report(), EndsWith("\n\nNumber of threads: " + line));
    EXPECT_EQ(KZCP::CurrentCP(CurrentThreadId()), cp);
  }
  KZCP::Fini();
  KZCP::Checkpoint("without a list");
  EXPECT_EQ(Report(), "Main thread ID: " + thread.substr(7) + "without a list\n");
  EXPECT_EQ(KZCP::CurrentCP(0), "NA");
}

TEST_F(KZCheckpointsTest, KeepsAHistoryForEachOf100ListedThreads) {
  auto& switches = KZCP::Switches();
  switches.History = true;
  KZCP::Checkpoint("first");
  KZCP::Checkpoint("second");
  EXPECT_THAT(Report(), HasSubstr("first       "));
  InThread([] { KZCP::Checkpoint("short life"); });
  std::vector<std::unique_ptr<TCheckpointHistory>> others;
  while (auto history = TCheckpointHistory::Create()) others.push_back(std::move(history));
  EXPECT_THAT(others, SizeIs(99));
  EXPECT_TRUE(switches.History);
  InThread([] { KZCP::Checkpoint("refused"); });
  EXPECT_FALSE(switches.History);
  EXPECT_TRUE(switches.HistoryOverflow);
}

TEST_F(KZCheckpointsTest, SurvivesReportsWhileThreadsComeAndGo) {
  KZCP::Switches().History = true;
  std::atomic<bool> stop = false;
  std::atomic<int> rounds = 0;
  std::atomic<KZCP::TThreadId> reporting = 0;
  // The lock dies as soon as both have been through it: a report that looked at it through a
  // stale mark would read freed memory.
  TCrew churn(2, [&](int) {
    while (!stop) {
      TKZCriticalSection shared("Churn");
      std::optional<TKZLockGuard> held(std::in_place, shared);
      TCrew other(1, [&shared](int) {
        KZCP::Checkpoint("other");
        const TKZLockGuard awaited(shared);
        KZCP::Checkpoint("other has it");
      });
      for (int i = 0; i < 100; ++i) {
        KZCP::Checkpoint("a text of more than one word");
        if (const auto thread = KZCP::ReportingThreadId(); thread != 0) reporting = thread;
      }
      held.reset();
      other.Join();
      ++rounds;
    }
  });
  EXPECT_TRUE(Eventually([&] {
    EXPECT_THAT(Report(), HasSubstr("Number of threads: "));
    KZCP::ReleaseRogueLocks();
    return rounds >= 40 && reporting == CurrentThreadId();
  }));
  stop = true;
  churn.Join();
  EXPECT_THAT(Report(), HasSubstr("Number of threads: 0\n"));
  EXPECT_EQ(KZCP::ReportingThreadId(), 0);
}

TEST(CheckpointProfileTest, CountsTimesBelowTwentyMinutesAndShowsThoseAboveASecondOnce) {
  const std::pair<std::int64_t, std::optional<std::int64_t>> cases[] = {
      {0, {}}, {1, 1}, {1'199'999, 1'199'999}, {1'200'000, {}}};
  for (const auto& [ticks, counted] : cases) {
    EXPECT_EQ(TCheckpointProfile::CountedTicks(5, 5 + ticks), counted);
    EXPECT_FALSE(TCheckpointProfile::CountedTicks(0, ticks)) << "before the first checkpoint";
  }
  TCheckpointProfile profile;
  for (const int ticks : {400, 605}) profile.Account(7, "above", ticks);
  profile.Account(7, "not above", 1'000);
  std::vector<std::string> lines;
  for (int i = 0; i < 2; ++i) profile.WriteResults([&](auto line) { lines.emplace_back(line); });
  EXPECT_THAT(lines, SizeIs(5)) << "two are the heading";
  EXPECT_EQ(lines[2], std::string(23, ' ') + "7:above         1.00s (2 invocations)");
}

TEST_F(KZCheckpointsTest, TracesToAFileForEachThreadAndProfilesInTheDebugModeAlone) {
  const TTempFolder folder;
  const TErrorLogInFolder errors;
  Settings().TempDirectory.Set(folder.Path());
  auto& switches = KZCP::Switches();
  switches.CPFileTrace = switches.ErrorLogTrace = switches.Profiling = true;
  KZCP::Init();
  EXPECT_FALSE(switches.Profiling);
  InThread([] {
    for (const char* const text : {"one", "Find", "Trav", "two"}) KZCP::Checkpoint(text);
  });
  EXPECT_THAT(errors.Text(), HasSubstr("CP one\nCP two\n"));
  std::string traces;
  for (const auto& file : std::filesystem::directory_iterator(folder.Path())) {
    traces += folder.Read(file.path().filename());
  }
  EXPECT_EQ(CountOf(traces, "\nNEW KZCP FILE\n"), 2) << "the main thread's too";
  const std::string at = "\n..:..:.. ";
  EXPECT_THAT(traces,
              ContainsRegex("exe: [^\n]*\n-+" + at + "Test" + at + "one" + at + "Find" + at +
                            "Trav" + at + "two" + at + "REMOVING THREAD FROM CP LIST\n"));
}

TEST(ThreadListReportTest, ShowsHistoriesFromTheNewestWithTheTimeBeforeEach) {
  TInt64List threads{"ThreadCPList", 1000};
  const auto report = [&threads] {  // At 06:00 of some day, when the tick count is 10,000,000.
    return ThreadListReport(threads, {46347.25, 10'000'000}, TReportDetail::WithHistory);
  };
  const auto ninth = std::make_shared<TCheckpointRecord>();
  const auto tenth = std::make_shared<TCheckpointRecord>();
  tenth->Pass("quiet", 1);
  threads.Add(10, tenth);
  threads.Add(9, ninth);
  threads.Add(9, nullptr);
  threads.Add(8, nullptr);
  const std::pair<std::string, std::int64_t> passed[] = {
      {"a", 9'900'000}, {"b", 9'900'005},
      {"", 9'900'005},  {std::string(30, 'c') + std::string(30, 'd'), 9'936'004},
      {"e", 9'972'004},
  };
  for (const auto& [text, tick] : passed) EXPECT_TRUE(ninth->AppendHistory(text, tick));
  EXPECT_EQ(report(),
            "Number of threads: 3\nThread 8, CP: N/A\nThread 9, CP: \n"
            "Thread 10, CP: quiet\n-----------------\n\n"
            "Thread 8, CP: N/A\nThread 9, CP: \n"
            "05:59:32.400 e                      {35999.00}" +
                std::string(30, 'c') + std::string(20, 'd') +
                "   {5.00}b                a                      \n\n"
                "Thread 10, CP: quiet\n");

  // The ring keeps 10,000, and the oldest has nothing before it.
  for (int i = 1; i <= 10'001; ++i) {
    EXPECT_TRUE(ninth->AppendHistory("cp" + std::to_string(10'000 + i), 9'000'000 + i));
  }
  EXPECT_THAT(report(),
              HasSubstr(" {1.00}cp10003          cp10002                \n\n\nThread 10"));
}

}  // namespace
}  // namespace guardian
