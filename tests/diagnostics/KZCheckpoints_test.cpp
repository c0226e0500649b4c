#include "diagnostics/KZCheckpoints.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <memory>
#include <optional>

#include "common/Exceptions.h"
#include "diagnostics/Diagnostics.h"
#include "diagnostics/KZCriticalSection.h"
#include "diagnostics/checkpoints/CheckpointProfile.h"
#include "diagnostics/checkpoints/CheckpointRecord.h"
#include "diagnostics/checkpoints/Int64List.h"
#include "diagnostics/checkpoints/ThreadReport.h"

namespace guardian {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class KZCheckpointsTest : public testing::Test {
 protected:
  KZCheckpointsTest() { KZCP::Init(); }
  ~KZCheckpointsTest() override {
    KZCP::RemoveThread(KZCP::TRemoval::Forced);
    KZCP::Fini();
    auto& switches = KZCP::Switches();
    for (auto* flag :
         {&switches.RawErrorLogTrace, &switches.CPFileTrace, &switches.DebugOutputTrace,
          &switches.Profiling, &switches.History, &switches.ErrorLogTrace,
          &switches.TimeStampErrorLogTrace, &switches.HistoryOverflow, &Settings().DebugMode}) {
      flag->store(false);
    }
  }

  static std::string Report() { return KZCP::ThreadReport(KZCP::TReportHeader::Without); }
};

// A thread that passes one checkpoint and stays until it is released.
class TListedThread {
 public:
  explicit TListedThread(std::string checkpoint)
      : FThread("Listed", [this, checkpoint] {
          KZCP::Checkpoint(checkpoint);
          FPassed.Signal();
          FRelease.WaitFor(std::chrono::seconds(60));
        }) {
    FThread.Start();
    EXPECT_TRUE(FPassed.WaitFor(std::chrono::seconds(60)));
  }
  ~TListedThread() { End(); }
  TListedThread(const TListedThread&) = delete;
  TListedThread& operator=(const TListedThread&) = delete;

  void End() {
    FRelease.Signal();
    FThread.Join();
  }
  [[nodiscard]] std::int32_t Id() const { return FThread.ThreadId(); }

 private:
  TKZEvent FPassed{"Passed"};
  TKZEvent FRelease{"Release", TEventReset::Manual};
  TFunctionThread FThread;
};

TEST_F(KZCheckpointsTest, ReportsEveryThreadAndTheLockItWaitsFor) {
  KZCP::Checkpoint("at work");
  TKZCriticalSection store("Store");
  TFunctionThread waiter("Waiter", [&store] {
    KZCP::Checkpoint("before the lock");
    const TKZLockGuard lock(store);
  });
  std::optional<TKZLockGuard> held(std::in_place, store);
  waiter.Start();
  ASSERT_TRUE(Eventually([] { return Report().find("Waiting for CS") != std::string::npos; }));

  const std::string mainId = std::to_string(CurrentThreadId());
  std::vector<std::pair<int, std::string>> threads = {
      {CurrentThreadId(), "Thread " + mainId + ", CP: at work\n"},
      {waiter.ThreadId(), "Thread " + std::to_string(waiter.ThreadId()) +
                              ", CP: before the lock\n"
                              "Waiting for CS Store owned by thread #" +
                              mainId + "\n"}};
  std::sort(threads.begin(), threads.end());
  EXPECT_EQ(KZCP::ThreadReport(KZCP::TReportHeader::With),
            "Thread Report\n-----------------\n"
            "Main thread ID: " +
                mainId +
                ", CP: at work\n"
                "Performance Counter Resolution: 1000 ticks per second.\n\n"
                "Number of threads: 2\n" +
                threads[0].second + threads[1].second);

  held.reset();
  waiter.Join();
  EXPECT_THAT(Report(), Not(HasSubstr("Waiting")));
}

TEST_F(KZCheckpointsTest, ReportsHistoriesInASecondPass) {
  KZCP::Switches().History = true;
  KZCP::Checkpoint("first");
  KZCP::Checkpoint("");
  KZCP::Checkpoint("last");
  const std::string report = Report();
  const auto secondPass = report.find("\n-----------------\n\nThread ");
  ASSERT_NE(secondPass, std::string::npos);
  EXPECT_THAT(report.substr(0, secondPass), Not(HasSubstr("first")));
  EXPECT_THAT(report.substr(secondPass), HasSubstr("first"));
}

TEST_F(KZCheckpointsTest, TellsUnknownThreadsFromAMissingList) {
  KZCP::Checkpoint("main");
  EXPECT_EQ(KZCP::CurrentCP(0), "N/A");
  EXPECT_EQ(KZCP::CPTime(0).CPTime, 0);
  const auto mainId = CurrentThreadId();
  InThread([mainId] {
    EXPECT_EQ(KZCP::CurrentCP(mainId), "main");
    EXPECT_GT(KZCP::CPTime(mainId).CPTime, 0);
  });
  KZCP::Fini();
  EXPECT_EQ(KZCP::CurrentCP(0), "NA");
  EXPECT_EQ(KZCP::CurrentCP(mainId), "main");
  EXPECT_EQ(Report(), "Main thread ID: " + std::to_string(mainId) + ", CP: main\n");
}

TEST_F(KZCheckpointsTest, ListsThreadsAgainAfterARestart) {
  KZCP::Switches().History = true;
  KZCP::Checkpoint("before");
  KZCP::Fini();
  KZCP::Init();
  KZCP::Init();
  EXPECT_THAT(Report(), HasSubstr("Number of threads: 0\n"));
  KZCP::Checkpoint("after");
  EXPECT_THAT(Report(), HasSubstr("Number of threads: 1\n"));
  EXPECT_THAT(Report(), Not(HasSubstr("before"))) << "a history lives as long as its entry";
}

TEST_F(KZCheckpointsTest, UnlistsAThreadAtItsEnd) {
  KZCP::Switches().History = true;
  TListedThread thread("short life");
  EXPECT_EQ(KZCP::CurrentCP(thread.Id()), "short life");
  EXPECT_EQ(TCheckpointHistory::Owners(), 1);
  thread.End();
  EXPECT_EQ(KZCP::CurrentCP(thread.Id()), "N/A");
  EXPECT_EQ(TCheckpointHistory::Owners(), 0);
}

// Made before the thread's first checkpoint, hence destroyed after the thread's record.
struct TLateCheckpoint {
  ~TLateCheckpoint() {
    KZCP::Checkpoint("too late");
    EXPECT_EQ(KZCP::CurrentCP(CurrentThreadId()), "");
    KZCP::RemoveThread(KZCP::TRemoval::Forced);
  }
  bool Touched = false;
};

TEST_F(KZCheckpointsTest, IgnoresCheckpointsOfAThreadThatIsBeingDestroyed) {
  InThread([] {
    static thread_local TLateCheckpoint late;
    late.Touched = true;
    KZCP::Checkpoint("in time");
  });
  EXPECT_THAT(Report(), HasSubstr("Number of threads: 0\n"));
}

TEST_F(KZCheckpointsTest, KeepsAThreadWithMessageBoxFlagUnlessForced) {
  InThread([] {
    KZCP::Checkpoint("shown");
    KZCP::SetMessageBoxFlag(true);
    KZCP::RemoveThread();
    EXPECT_THAT(Report(), HasSubstr("CP: shown\n"));
    KZCP::RemoveThread(KZCP::TRemoval::Forced);
    EXPECT_THAT(Report(), Not(HasSubstr("shown")));
    KZCP::Checkpoint("back");
    KZCP::SetMessageBoxFlag(false);
    KZCP::RemoveThread();
    EXPECT_THAT(Report(), Not(HasSubstr("back")));
  });
}

TEST_F(KZCheckpointsTest, CutsTextsTo255AndInTheHistoryTo50) {
  KZCP::Switches().History = true;
  const std::string text = std::string(50, 'a') + std::string(205, 'b') + std::string(45, 'c');
  KZCP::Checkpoint(text);
  EXPECT_EQ(KZCP::CurrentCP(CurrentThreadId()), text.substr(0, 255));
  EXPECT_THAT(Report(), EndsWith(" " + text.substr(0, 50) + "   \n\n"));
}

TEST_F(KZCheckpointsTest, TakesTextsOfAnyWidth) {
  const auto own = [] { return KZCP::CurrentCP(CurrentThreadId()); };
  KZCP::Checkpoint(u"Gr\u00FC\u00DFe \u20AC \U0001F600");
  EXPECT_EQ(own(), "Gr\u00FC\u00DFe \u20AC \U0001F600");
  const char16_t halves[] = {u'a', 0xDC00, 0xD83D, u'b', 0xD83D};
  KZCP::Checkpoint(std::u16string_view(halves, 5));
  EXPECT_EQ(own(), "a\uFFFD\uFFFDb\uFFFD");
  TShortString text;
  text.Length = 7;
  std::fill(text.Text.begin(), text.Text.end(), 's');
  KZCP::Checkpoint(text);
  EXPECT_EQ(own(), "sssssss");
  const std::string letters = "abcdefghijklmnopqrstuvwxyz";
  for (std::size_t length = letters.size() + 1; length-- > 0;) {
    KZCP::Checkpoint(letters.substr(0, length));
    EXPECT_EQ(own(), letters.substr(0, length));
  }
}

TEST_F(KZCheckpointsTest, SwitchesHistoryOffForGoodAtThe101stOwner) {
  std::vector<std::unique_ptr<TCheckpointRecord>> owners;
  for (int i = 0; i < 99; ++i) {
    owners.push_back(std::make_unique<TCheckpointRecord>());
    ASSERT_TRUE(owners.back()->AppendHistory("owner", 1));
  }
  auto& switches = KZCP::Switches();
  switches.History = true;
  KZCP::Checkpoint("hundredth");
  EXPECT_TRUE(switches.History);
  {
    const TListedThread refused("refused");
    EXPECT_FALSE(switches.History);
    EXPECT_TRUE(switches.HistoryOverflow);
    KZCP::Checkpoint("not kept");
    switches.History = true;  // To see what has been kept.
    EXPECT_THAT(Report(), HasSubstr("hundredth           "));
    EXPECT_THAT(Report(), Not(HasSubstr("not kept   ")));
  }
  KZCP::RemoveThread(KZCP::TRemoval::Forced);
  owners.clear();
  EXPECT_EQ(TCheckpointHistory::Owners(), 0);
}

TEST_F(KZCheckpointsTest, LeavesRogueLocksThatOthersWaitFor) {
  KZCP::Checkpoint("main");
  TKZCriticalSection awaited("Awaited");
  TKZCriticalSection quiet("Quiet");
  // Not analysed: the point of this test is a lock that is not left where it was entered.
  const auto enter = [](TKZCriticalSection& section) KZ_NO_ANALYSIS { section.Enter(); };
  const auto leave = [](TKZCriticalSection& section) KZ_NO_ANALYSIS { section.Leave(); };
  enter(awaited);
  enter(awaited);
  enter(quiet);
  TFunctionThread waiter("Waiter", [&] {
    KZCP::Checkpoint("waiter");
    const TKZLockGuard lock(awaited);
  });
  waiter.Start();
  EXPECT_TRUE(Eventually([] { return Report().find("CS Awaited") != std::string::npos; }));
  KZCP::ReleaseRogueLocks();
  waiter.Join();
  EXPECT_EQ(awaited.Holder(), 0);
  EXPECT_EQ(quiet.Holder(), CurrentThreadId());
  leave(awaited);
  leave(quiet);
  EXPECT_EQ(quiet.Holder(), 0);
  const TKZLockGuard stillUsable(awaited);
}

TEST_F(KZCheckpointsTest, TracesToTheChosenOutputWithoutFolderSearch) {
  const TErrorLogInFolder log;
  auto& switches = KZCP::Switches();
  switches.ErrorLogTrace = true;
  for (const auto* text : {"one", "Find files", "Traverse", "find"}) KZCP::Checkpoint(text);
  switches.TimeStampErrorLogTrace = true;
  KZCP::Checkpoint("stamped");
  switches.ErrorLogTrace = false;
  switches.RawErrorLogTrace = true;
  KZCP::Checkpoint("Find raw");
  switches.RawErrorLogTrace = false;
  switches.DebugOutputTrace = true;
  testing::internal::CaptureStderr();
  KZCP::Checkpoint("debug");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "debug\n");
  EXPECT_EQ(WithoutTimes(log.Text()), "CP one\nCP find\n<date> CP stamped\nFind raw\n");
}

TEST_F(KZCheckpointsTest, TracesEachThreadToItsFile) {
  const TTempFolder folder;
  const std::string before = Settings().TempDirectory.Copy();
  Settings().TempDirectory.Set(folder.Path() + "/");
  const auto commandLine = std::exchange(Settings().CommandLine, {"prog", "plain", "two words"});
  const auto executable = std::exchange(Settings().OwnExecutablePath, "/opt/x/prog");
  KZCP::Switches().CPFileTrace = true;
  int id = 0;
  InThread([&id] {
    KZCP::Checkpoint("one");
    KZCP::RemoveThread();
    id = CurrentThreadId();
  });
  KZCP::Switches().CPFileTrace = false;
  Settings().TempDirectory.Set(before);
  Settings().CommandLine = commandLine;
  Settings().OwnExecutablePath = executable;

  ASSERT_EQ(NamesIn(folder).size(), 1U);
  const std::string name = NamesIn(folder)[0];
  EXPECT_THAT(name, testing::MatchesRegex("KZCP-prog-" + std::to_string(id) + "[0-9][0-9]*[.]log"));
  EXPECT_EQ(WithoutTimes(folder.Read(name)),
            "-------------\nNEW KZCP FILE\n-------------\n"
            "exe: /opt/x/prog plain \"two words\"\n-------------\n"
            "<time> one\n<time> REMOVING THREAD FROM CP LIST\n");
}

TEST_F(KZCheckpointsTest, ProfilesInDebugModeOnly) {
  auto& switches = KZCP::Switches();
  switches.Profiling = true;
  KZCP::Init();
  EXPECT_FALSE(switches.Profiling);
  Settings().DebugMode = true;
  switches.Profiling = true;
  KZCP::Init();
  EXPECT_TRUE(switches.Profiling);
  const TErrorLogInFolder log;
  KZCP::WriteProfilingResults();
  EXPECT_THAT(log.Text(), StartsWith("Profiling Results: "));
  InThread([] {
    KZCP::Checkpoint("listed");
    EXPECT_THAT(KZCP::RegistrationTrace(),
                EndsWith(std::to_string(CurrentThreadId()) + "/listed "));
  });
}

TEST_F(KZCheckpointsTest, SurvivesReportsWhileThreadsComeAndGo) {
  KZCP::Switches().History = true;
  constexpr int kRounds = 40;
  std::atomic<bool> stop = false;
  std::atomic<int> rounds = 0;
  // The lock dies as soon as both have been through it: a report that looked at it through a
  // stale mark would read freed memory.
  const auto churn = [&] {
    while (!stop) {
      auto shared = std::make_unique<TKZCriticalSection>("Churn");
      TFunctionThread other("Other", [&shared] {
        KZCP::Checkpoint("other");
        const TKZLockGuard lock(*shared);
        KZCP::Checkpoint("other has it");
      });
      {
        const TKZLockGuard lock(*shared);
        other.Start();
        for (int i = 0; i < 100; ++i) KZCP::Checkpoint("a text of more than one word");
      }
      other.Join();
      ++rounds;
    }
  };
  TFunctionThread first("First", churn);
  TFunctionThread second("Second", churn);
  first.Start();
  second.Start();
  EXPECT_TRUE(Eventually([&] {
    EXPECT_THAT(Report(), HasSubstr("Number of threads: "));
    KZCP::ReleaseRogueLocks();
    return rounds >= kRounds;
  }));
  stop = true;
  first.Join();
  second.Join();
  EXPECT_THAT(Report(), HasSubstr("Number of threads: 0\n"));
  EXPECT_EQ(TCheckpointHistory::Owners(), 0);
}

class ThreadListReportTest : public testing::Test {
 protected:
  TCheckpointRecord& Add(std::int64_t id) {
    auto record = std::make_shared<TCheckpointRecord>();
    FThreads.Add(id, record);
    return *record;
  }
  static void Pass(TCheckpointRecord& record, const std::string& text, std::int64_t tick) {
    record.Pass(text, tick);
    ASSERT_TRUE(record.AppendHistory(text, tick));
  }
  // At 06:00 of some day, when the tick count is 10,000,000.
  [[nodiscard]] std::string Detailed() const {
    return ThreadListReport(FThreads, {46347.25, 10'000'000}, TReportDetail::WithHistory);
  }

  TInt64List FThreads{"ThreadCPList", 1000};
};

TEST_F(ThreadListReportTest, ShowsHistoriesFromTheNewestWithTheTimeBeforeEach) {
  auto& ninth = Add(9);
  Add(10);
  Add(7).Pass("quiet", 1);
  FThreads.Add(9, nullptr);
  FThreads.Add(8, nullptr);
  Pass(ninth, "a", 9'900'000);
  Pass(ninth, "b", 9'900'005);
  Pass(ninth, "c", 9'936'004);
  Pass(ninth, "d", 9'972'004);
  EXPECT_EQ(Detailed(),
            "Number of threads: 4\n"
            "Thread 7, CP: quiet\n"
            "Thread 8, CP: N/A\n"
            "Thread 9, CP: d\n"
            "Thread 10, CP: \n"
            "-----------------\n\n"
            "Thread 7, CP: quiet\n"
            "Thread 8, CP: N/A\n"
            "Thread 9, CP: d\n"
            "05:59:32.400 "
            "d                      "
            "{35999.00}c            "
            "{5.00}b                "
            "a                      "
            "\n\n"
            "Thread 10, CP: \n");
}

TEST_F(ThreadListReportTest, PutsTenEntriesOnALine) {
  auto& record = Add(1);
  for (int i = 0; i < 11; ++i) Pass(record, "x", 10'000'000 - 5000 * (i == 0 ? 1 : 0));
  const std::string entry = "x                      ";
  std::string line;
  for (int i = 0; i < 9; ++i) line += entry;
  EXPECT_THAT(Detailed(), EndsWith("06:00:00.0 " + line + "{5000.00}x             " +
                                   "\n05:59:55.0 " + entry + "\n\n"));
}

TEST_F(ThreadListReportTest, OverwritesTheOldestOfTenThousand) {
  auto& record = Add(1);
  for (int i = 1; i <= 10'001; ++i) Pass(record, "cp" + std::to_string(i), 9'000'000 + i);
  ASSERT_EQ(record.History()->NewestIndex(), 1);
  EXPECT_EQ(record.History()->At(1).Text.Load().View(), "cp10001");
  EXPECT_EQ(record.History()->At(1).Tick, 9'010'001);
  const std::string report = Detailed();
  const std::string history = report.substr(report.rfind(", CP: cp10001\n") + 14);
  EXPECT_THAT(history, StartsWith("05:43:30.100 {1.00}cp10001          {1.00}cp10000          "));
  EXPECT_THAT(history, EndsWith(" {1.00}cp3              cp2                    \n\n\n"))
      << "the oldest has nothing before it";
}

TEST(CheckpointProfileTest, CountsTimesBelowTwentyMinutesOnly) {
  const auto counted = TCheckpointProfile::CountedTicks;
  EXPECT_EQ(counted(0, 500), std::nullopt);
  EXPECT_EQ(counted(500, 500), std::nullopt);
  EXPECT_EQ(counted(500, 499), std::nullopt);
  EXPECT_EQ(counted(500, 501), 1);
  EXPECT_EQ(counted(1, 1'200'000), 1'199'999);
  EXPECT_EQ(counted(1, 1'200'001), std::nullopt);
}

TEST(CheckpointProfileTest, WritesWhatTookMoreThanASecondAndForgetsAll) {
  TCheckpointProfile profile;
  profile.Account(0x80000005, "slow", 1'000);
  profile.Account(5, "slow", 254);
  profile.Account(5, "quick", 1'000);
  profile.Account(12, "a checkpoint of more than 30 columns", 1'001);
  std::vector<std::string> lines;
  const auto collect = [&lines](std::string_view line) { lines.emplace_back(line); };
  profile.WriteResults(collect);
  EXPECT_THAT(lines,
              ElementsAre("Profiling Results: Times used just before each checkpoint.",
                          std::string(58, '-'),
                          "12:a checkpoint of more than 30 columns         1.00s (1 invocations)",
                          std::string(24, ' ') + "5:slow         1.25s (2 invocations)"));
  lines.clear();
  profile.WriteResults(collect);
  EXPECT_EQ(lines.size(), 2U);
}

}  // namespace
}  // namespace guardian
