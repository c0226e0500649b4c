#include "diagnostics/job_mutex.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>

#include "diagnostics/Diagnostics.h"
#include "diagnostics/jobs/MutexGuardian.h"
#include "diagnostics/jobs/RunReport.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

constexpr std::int32_t kOwner = 4711;
const std::string kReportName = "Vellumark Run Report 2026-11-21 06_00_00.txt";

TFileHandle OpenMutexFile(const TTempFolder& folder) {
  return AddFileObject(TFileDescriptor(
      ::open(folder.Path("mutex.lock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600)));
}

bool IsFileOpen(TFileHandle handle) { return BorrowFileObject(handle) != nullptr; }

// A profile's report that is one text.
class TFixedReport final : public TProfileReport {
 public:
  explicit TFixedReport(std::string text) : FText(std::move(text)) {}
  [[nodiscard]] std::string Text() override { return FText; }

 private:
  const std::string FText;
};

// A registry with a list, what its hooks were told, and threads that are silent as a test says.
class TJobMutexTest : public testing::Test {
 protected:
  TJobMutexTest() {
    // A day more for each test: what was said in earlier ones is then no repetition.
    static int tests = 0;
    FClock.Advance(std::chrono::hours(24) * ++tests);
    FClock.SetWall(46347.25);
    KZCP::Init();
    FRegistry.CreateList();
    FRegistry.Settings.ReportFolder = FReports.Path();
    FRegistry.Settings.LogHook = [this](std::string_view text) { FLog.emplace_back(text); };
    FRegistry.Settings.ReportLog = [this](const std::string& text) {
      FReasons.push_back(text.substr(0, text.find("\n\nSee Report File: ")));
    };
    FSilences[KZCP::MainThreadId()] = {};
  }
  ~TJobMutexTest() override {
    for (const auto& entry : Entries()) {
      if (IsFileOpen(entry->Info.Handle)) CloseHandle(entry->Info.Handle);
    }
    KZCP::Fini();
  }

  TMutexEntries Entries() {
    const TKZLockGuard lock(FRegistry.Lock);
    return FRegistry.Entries();
  }

  // Registers an open file under "<profile>.mutex"; the entry's owner is a thread of that number.
  std::shared_ptr<TMutexEntry> Register(const std::string& profile, std::int32_t owner = kOwner,
                                        TMutexFreedCallback onFreed = {}, std::int32_t number = 0) {
    const auto provider = [profile] { return std::make_unique<TFixedReport>("All of " + profile); };
    FRegistry.Register(profile + ".mutex", profile, OpenMutexFile(FMutexes), provider,
                       std::move(onFreed), number);
    auto entry = Entries().back();
    entry->Info.OwnerThread = owner;
    return entry;
  }
  void RegisterOdd() {
    FRegistry.Register("Odd.mutex", "Odd", 987'654'321, {}, {}, 8);
    Entries().back()->Info.OwnerThread = kOwner;
  }

  void Pass(TMutexGuardianThread::TPass pass, int count = 1) {
    const TCheckpointLookup lookUp = [this](KZCP::TThreadId thread) -> KZCP::TCPTimes {
      const auto found = FSilences.find(thread);
      if (found == FSilences.end()) return {};
      return {FClock.TickCount() - found->second.CPTime, found->second.PreviousCPTime};
    };
    for (int i = 0; i < count; ++i) {
      FClock.Advance(std::chrono::seconds(20));
      pass(TPassMoment::Of(FClock), FRegistry, lookUp);
    }
  }

  [[nodiscard]] std::string ReportText() const { return FReports.Read(kReportName); }

  // The milliseconds of silence at each pass, and the allowance, of the threads with a record.
  std::map<KZCP::TThreadId, KZCP::TCPTimes> FSilences;

  const TTempFolder FReports;
  const TTempFolder FMutexes;
  const TErrorLogInFolder FErrorLog;
  TFakeClock FClock;
  TMutexRegistry FRegistry{FClock};
  std::vector<std::string> FLog;
  std::vector<std::string> FReasons;  // Of the run reports.
};

TEST_F(TJobMutexTest, IsFreedOnTheFourthPassInARowBeyondTheLimit) {
  const struct {
    int Minutes;
    std::optional<KZCP::TCPTimes> Silence;
    bool Freed;
  } cases[] = {
      {10, {{600'999, 0}}, false}, {10, {{601'000, 0}}, true},       {10, {{605'999, 5}}, false},
      {10, {{606'000, 5}}, true},  {10'000'000, std::nullopt, true}, {0, std::nullopt, false},
  };
  for (const auto& [minutes, silence, freed] : cases) {
    SCOPED_TRACE(minutes + (silence ? silence->CPTime : 0));
    FRegistry.Settings.JobMutexInactivityMinutes = minutes;
    const auto entry = Register("P");
    const TFileHandle handle = entry->Info.Handle;
    for (int i = 0; i < 2; ++i) {
      FSilences[kOwner] = {};
      Pass(FreeInactiveMutexes);
      FSilences.erase(kOwner);
      if (silence) FSilences[kOwner] = *silence;
      Pass(FreeInactiveMutexes, 3);
    }
    EXPECT_TRUE(IsFileOpen(handle));
    FRegistry.ReportNeeded = false;
    Pass(FreeInactiveMutexes);
    EXPECT_EQ(IsFileOpen(handle), !freed);
    EXPECT_EQ(entry->Info.Handle, freed ? 0 : handle);
    EXPECT_EQ(FRegistry.ReportNeeded, freed);
    if (!freed) CloseMutex(entry->Info, FClock);
  }
}

TEST_F(TJobMutexTest, ReportsASilentThreadTenTimesWithTwoMinutesBetween) {
  const auto mainThread = KZCP::MainThreadId();
  const struct {
    KZCP::TThreadId Thread;
    std::optional<KZCP::TCPTimes> Silence;
    int Minutes;
    std::string Reason;  // Empty for no report.
  } cases[] = {
      {mainThread, {{120'999, 0}}, 2, ""},
      {mainThread, {{126'000, 5}}, 2, "Main Thread Inactive For 00:02:06\n"},
      {mainThread, std::nullopt, 2, "Main Thread no longer seems to exist"},
      {mainThread, std::nullopt, 0, ""},
      {kOwner, {{125'999, 5}}, 2, ""},
      {kOwner, {{121'000, 0}}, 2, "Profile P Main Thread Inactive For 00:02:01\n"},
      {kOwner, std::nullopt, 2, "Profile P Main Thread no longer exists"},
      {kOwner, std::nullopt, 0, ""},
  };
  for (const auto& [thread, silence, minutes, reason] : cases) {
    SCOPED_TRACE(reason + std::to_string(thread));
    FRegistry.Settings.MainThreadInactivityMinutes = minutes;
    FReasons.clear();
    FRegistry.CreateList();
    Register("P");
    FSilences = {{mainThread, {}}, {kOwner, {}}};
    FSilences.erase(thread);
    if (silence) FSilences[thread] = *silence;
    const std::size_t one = reason.empty() ? 0 : 1;
    Pass(ReportInactivity, 3);
    EXPECT_THAT(FReasons, IsEmpty());
    FRegistry.ReportNeeded = false;
    Pass(ReportInactivity);
    EXPECT_THAT(FReasons, SizeIs(one));
    EXPECT_EQ(FRegistry.ReportNeeded, one == 1);
    Pass(ReportInactivity, 8);  // Two minutes in which nothing is due, then strikes.
    EXPECT_THAT(FReasons, SizeIs(one));
    Pass(ReportInactivity, 200);
    EXPECT_EQ(FReasons, std::vector<std::string>(one * 10, reason));
    CloseHandle(Entries()[0]->Info.Handle);
    const TKZLockGuard lock(FRegistry.Lock);
    FRegistry.Reporting = {};
    FRegistry.FreeList();
  }
}

TEST_F(TJobMutexTest, ReportsTheAgeOnceInsteadOfTheSilence) {
  FRegistry.Settings.MaxAgeMinutes = 60;
  FSilences[kOwner] = {};
  const auto entry = Register("A");
  Pass(ReportInactivity, 179);
  EXPECT_THAT(FReasons, IsEmpty());
  FClock.Advance(milliseconds(21'000));
  FSilences.erase(kOwner);
  Pass(ReportInactivity);
  EXPECT_THAT(FReasons, ElementsAre("Profile A Job Mutex Age = 01:00:21\n"));
  EXPECT_EQ(entry->Info.MainStrikes, 0);
  Pass(ReportInactivity);
  EXPECT_THAT(FReasons, SizeIs(1));
}

TEST_F(TJobMutexTest, CallbacksMayChangeTheListDuringTheWalkAndMayFail) {
  std::shared_ptr<TMutexEntry> second;
  int calls = 0;
  const auto onFreed = [&](TFileHandle) {
    ++calls;
    CloseHandle(second->Info.Handle);
    FRegistry.Unregister(second->Info.Handle, 2);
    Register("New", kOwner, [](TFileHandle) { FAIL() << "not freed"; });
    throw std::runtime_error("callback failed");
  };
  Register("A", kOwner, onFreed, 1);
  second = Register("B", 1, {}, 2);
  Register("C", 1, {}, 3);
  FSilences[1] = {};
  RegisterOdd();
  Pass(FreeInactiveMutexes, 4);
  EXPECT_THAT(FErrorLog.Text(), HasSubstr("Invalid handle passed to CloseHandle"));
  Pass(ReportInactivity);
  const std::string freed = "Job Mutex freed for profile A, thread no longer exists\n";
  const std::string odd = "Job Mutex freed for profile Odd, thread no longer exists\n";
  EXPECT_THAT(FReasons, ElementsAre(freed, freed, freed + odd)) << "in A's turn, C's and Odd's";
  Pass(ReportInactivity);
  EXPECT_THAT(FReasons, SizeIs(3));
  EXPECT_EQ(calls, 1);
  EXPECT_THAT(Entries(), SizeIs(4));
  EXPECT_TRUE(FRegistry.ReportingMalfunction);
  EXPECT_THAT(FErrorLog.Text(), HasSubstr("callback failed"));
  FLog.clear();
  Pass(FreeInactiveMutexes, 2);
  EXPECT_THAT(FLog, ElementsAre("Mutex Guardian Reporting Thread Malfunction"));
}

TEST_F(TJobMutexTest, AGuardianMakesItsFirstPassAfterTwentySecondsAndEndsAtOnce) {
  static std::atomic<int> passes;
  passes = 0;
  const std::int64_t start = FClock.TickCount();
  TMutexGuardianThread thread(
      "Guardian", FRegistry,
      [](const TPassMoment&, TMutexRegistry&, const TCheckpointLookup&) noexcept { ++passes; });
  thread.Start();
  EXPECT_TRUE(Eventually([&] {
    FClock.Advance(milliseconds(125));
    return passes > 0;
  }));
  EXPECT_GE(FClock.TickCount() - start, 20'000);
  thread.Join();  // Time stands still: only the request to end can wake it.
}

TEST_F(TJobMutexTest, IsUnregisteredByHandleOrNumber) {
  const auto first = Register("A", kOwner, {}, 1);
  const auto open = Register("B", kOwner, {}, 2);
  const auto freed = Register("C", kOwner, {}, 3);
  CloseMutex(freed->Info, FClock);
  const TFileHandle handle = first->Info.Handle;
  FRegistry.Unregister(handle, 99);
  EXPECT_THAT(Entries(), ElementsAre(open, freed));
  EXPECT_TRUE(IsFileOpen(handle)) << "the job closes it itself";
  CloseHandle(handle);
  FRegistry.Unregister(freed->Info.RegisteredHandle, 3);
  EXPECT_THAT(Entries(), ElementsAre(open));
  FRegistry.Unregister(123'456, 2);
  FRegistry.Unregister(0, 99);
  EXPECT_THAT(Entries(), ElementsAre(open));
  const std::string now = DateTimeToStr(FClock.Now());
  EXPECT_EQ(FErrorLog.Text(), now + " Unable to unregister mutex #123456\n" + now +
                                  " Known Job Mutex List:\nB.mutex\n\n");
  EXPECT_FALSE(FRegistry.ReportNeeded);

  const TFileHandle openHandle = open->Info.Handle;
  open->Info.MutexNumber = 8;
  RegisterOdd();
  FRegistry.Unregister(0, 8);
  EXPECT_THAT(Entries(), IsEmpty());
  EXPECT_FALSE(IsFileOpen(openHandle));
  EXPECT_TRUE(FRegistry.ReportNeeded);
  const std::string stillOpen = "Job Mutex still open in call to UnregisterMutex";
  EXPECT_THAT(FLog, ElementsAre(stillOpen, stillOpen));
  EXPECT_THAT(FErrorLog.Text(), HasSubstr("UnregisterMutex Odd.mutex Exception: Invalid handle"));
}

TEST_F(TJobMutexTest, IsRegisteredFromTheStartToTheEndOfTheCheckpoints) {
  TMutexGuardianSettings& settings = MutexRegistry().Settings;
  settings = FRegistry.Settings;
  for (std::size_t round = 1; round <= 2; ++round) {
    EXPECT_EQ(RegisterMutex("Early", "P", 17, {}, {}, 1), 0);
    UnregisterMutex(17, 1);
    StartMutexGuardian();
    StartMutexGuardian();
    const std::array handles{OpenMutexFile(FMutexes), OpenMutexFile(FMutexes)};
    EXPECT_EQ(RegisterMutex("First", "P", handles[0], {}, {}, 1), 0);
    InThread([&] { EXPECT_EQ(RegisterMutex("Second", "P", handles[1], {}, {}, 2), 1); });
    EXPECT_EQ(ThrownMessage([] { KZCP::Fini(&CheckMutexesAtTermination); }),
              "Mutexes still open: First\nSecond\n");
    ASSERT_THAT(FReasons, SizeIs(round));
    EXPECT_THAT(FReasons[0], StartsWith("Job Mutex Still Open Upon Program Termination"));
    EXPECT_FALSE(IsFileOpen(handles[0]));
    EXPECT_TRUE(IsFileOpen(handles[1]));
    UnregisterMutex(0, 2);
    KZCP::Fini(&CheckMutexesAtTermination);
  }
  settings = {};
}

TEST(FormatDurationTest, ShowsDaysAndTheTimeOfDay) {
  const std::pair<TDateTime, const char*> cases[] = {
      {90 * kSecond, "00:01:30"},
      {1 - kSecond, "23:59:59"},
      {1 - 1e-10, "1 Day(s) plus 00:00:00"},
      {400.5, "400 Day(s) plus 12:00:00"},
      {-0.5, ""},
      {1e300, ""},
      {std::numeric_limits<TDateTime>::quiet_NaN(), ""},
  };
  for (const auto& [duration, text] : cases) EXPECT_EQ(FormatDuration(duration), text) << duration;
}

TEST_F(TJobMutexTest, ARunReportListsWhatIsRegistered) {
  const auto open = Register("Daily");
  const auto freed = Register("Weekly");
  freed->Info.ReportProvider = nullptr;
  CloseMutex(freed->Info, FClock);
  freed->Info.FreedAt = FClock.SteadyNow() - kMinute;
  FClock.Advance(std::chrono::hours(36));
  FClock.SetWall(46347.25);
  // All users may be able to write to the folder: a link there must not be followed.
  FMutexes.Write("precious", "untouched");
  std::filesystem::create_symlink(FMutexes.Path("precious"), FReports.Path(kReportName));
  std::string told;
  FRegistry.Settings.ReportLog = [&](const std::string& text) { told = text; };
  WriteRunReport(FRegistry, "Test");
  EXPECT_EQ(FMutexes.Read("precious"), "untouched");
  EXPECT_EQ(told, "Test\n\nSee Report File: " + FReports.Path(kReportName));
  EXPECT_THAT(FLog, ElementsAre("Report File Created: " + FReports.Path(kReportName)));
  EXPECT_THAT(ReportText(),
              StartsWith("Vellumark Run Report From 2026-11-21 06:00:00 for " +
                         Settings().OwnExecutablePath +
                         "\n\nReason for this Report: Test\n\n"
                         "#Active Pofiles With Job Mutex Names\nDaily / Daily.mutex / Handle=" +
                         std::to_string(open->Info.Handle) +
                         " / active for 1 Day(s) plus 12:00:00\n"
                         "Weekly / Weekly.mutex / Handle=0 / Orig. Handle=" +
                         std::to_string(freed->Info.RegisteredHandle) +
                         " / Freed:2026-11-19 17:59:00 / active for 1 Day(s) plus 12:00:00\n"
                         "\nThread Report\n"));
  EXPECT_THAT(ReportText(), EndsWith("\n\nDetailed Report for Daily\nAll of Daily\n"
                                     "Detailed Report for Weekly\n"
                                     "Exception: The profile has no report.\n\n"));
  EXPECT_FALSE(FRegistry.ReportingMalfunction);
}

TEST_F(TJobMutexTest, AReportThatFailsHarmsNothing) {
  FRegistry.Settings.ReportFolder = FReports.Path("missing");
  WriteRunReport(FRegistry, "Test");
  EXPECT_TRUE(FRegistry.ReportingMalfunction);
  EXPECT_THAT(FErrorLog.Text(), HasSubstr("WriteRunReport Exception: create " + FReports.Path()));
  EXPECT_THAT(FLog, IsEmpty());
  SaveActivityReport(FReports.Path("missing"), "");
  EXPECT_THAT(FErrorLog.Text(), HasSubstr("SaveActivityReport Exception: create "));
}

TEST_F(TJobMutexTest, AnActivityReportIsNamedAfterProgramProcessSubjectAndMoment) {
  const TSettingsBackup backup;
  Settings().OwnExecutablePath = "/opt/x/program.exe";
  SaveActivityReport(FReports.Path(), "Main: a/b");
  SaveActivityReport("", "");
  const auto names = NamesIn(FReports);
  ASSERT_THAT(names, SizeIs(2));
  const std::string start = "program-PID" + std::to_string(::getpid());
  const std::string end = ".activityreport-9999-99-99 99_99_99.999.txt";
  EXPECT_THAT(names[0], StartsWith(start + ".Main_ a_b."));
  EXPECT_EQ(Nines(names[0]), Nines(start) + ".Main_ a_b" + end);
  EXPECT_EQ(Nines(names[1]), Nines(start) + end);
  EXPECT_THAT(FReports.Read(names[0]), StartsWith("Thread Report\n"));
  EXPECT_THAT(FReports.Read(names[0]), HasSubstr(", CP: SaveReport\n"));
}

}  // namespace
}  // namespace guardian
