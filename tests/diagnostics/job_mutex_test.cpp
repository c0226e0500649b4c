#include "diagnostics/job_mutex.h"

#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/jobs/MutexGuardian.h"
#include "diagnostics/jobs/RunReport.h"
#include "support/TestSupport.h"

namespace guardian {
namespace {

constexpr std::int32_t kOwner = 4711;

TFileHandle OpenMutexFile(const TTempFolder& folder) {
  return AddFileObject(TFileDescriptor(
      ::open(folder.Path("mutex.lock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600)));
}

bool IsFileOpen(TFileHandle handle) { return BorrowFileObject(handle) != nullptr; }

// A registry with a list, what its hooks were told, and threads that are silent as a test says.
class TJobMutexTest : public testing::Test {
 protected:
  TJobMutexTest() {
    // A day more for each test: what was said in earlier ones is then no repetition.
    static int tests = 0;
    FClock.Advance(std::chrono::hours(24) * ++tests);
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

  // Registers an open file under "<profile>.mutex"; the entry's owner is the thread kOwner.
  std::shared_ptr<TMutexEntry> Register(const std::string& profile,
                                        TMutexFreedCallback onFreed = {}) {
    FRegistry.Register(profile + ".mutex", profile, OpenMutexFile(FMutexes), {}, std::move(onFreed),
                       0);
    auto entry = Entries().back();
    entry->Info.OwnerThread = kOwner;
    return entry;
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
  const std::tuple<int, std::optional<KZCP::TCPTimes>, bool> cases[] = {
      {10, {{600'999, 0}}, false},      {10, {{601'000, 0}}, true}, {10, {{605'999, 5}}, false},
      {10'000'000, std::nullopt, true}, {0, std::nullopt, false},
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
    Pass(FreeInactiveMutexes);
    EXPECT_EQ(IsFileOpen(handle), !freed);
    if (!freed) CloseMutex(entry->Info, FClock);
  }
}

TEST_F(TJobMutexTest, ReportsASilentThreadTenTimesWithTwoMinutesBetween) {
  const auto mainThread = KZCP::MainThreadId();
  // An empty reason is for no report.
  const std::tuple<KZCP::TThreadId, std::optional<KZCP::TCPTimes>, int, std::string> cases[] = {
      {mainThread, {{120'999, 0}}, 2, ""},
      {mainThread, {{126'000, 5}}, 2, "Main Thread Inactive For 00:02:06\n"},
      {mainThread, std::nullopt, 2, "Main Thread no longer seems to exist"},
      {kOwner, std::nullopt, 0, ""},
      {kOwner, {{125'999, 5}}, 2, ""},
      {kOwner, {{121'000, 0}}, 2, "Profile P Main Thread Inactive For 00:02:01\n"},
      {kOwner, std::nullopt, 2, "Profile P Main Thread no longer exists"},
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
    // The fourth pass reports; then nothing is due for two minutes, and strikes follow.
    const std::pair<int, std::size_t> reports[] = {{3, 0}, {1, 1}, {8, 1}, {200, 10}};
    for (const auto& [passes, count] : reports) {
      Pass(ReportInactivity, passes);
      EXPECT_EQ(FReasons, std::vector<std::string>(reason.empty() ? 0 : count, reason));
    }
    CloseHandle(Entries()[0]->Info.Handle);
    const TKZLockGuard lock(FRegistry.Lock);
    FRegistry.Reporting = {};
    FRegistry.FreeList();
  }
}

TEST_F(TJobMutexTest, ItsOwnerIsToldOnceAndMayFail) {
  int told = 0;
  Register("P", [&](TFileHandle) { throw std::runtime_error(std::to_string(++told) + " failed"); });
  Pass(FreeInactiveMutexes, 4);
  Pass(ReportInactivity, 2);
  EXPECT_THAT(FReasons, ElementsAre("Job Mutex freed for profile P, thread no longer exists\n"));
  EXPECT_EQ(CountOf(FErrorLog.Text(), " failed\n"), 1);
  EXPECT_EQ(std::exchange(FLog, {}).front(), "Forced closing Job Mutex due to inactivity");
  Pass(FreeInactiveMutexes, 2);
  EXPECT_THAT(FLog, ElementsAre("Mutex Guardian Reporting Thread Malfunction"));
}

TEST_F(TJobMutexTest, IsRegisteredFromTheStartToTheEndOfTheCheckpoints) {
  TMutexGuardianSettings& settings = MutexRegistry().Settings;
  settings = FRegistry.Settings;
  StartMutexGuardian();
  const TFileHandle first = OpenMutexFile(FMutexes);
  const TFileHandle second = OpenMutexFile(FMutexes);
  EXPECT_EQ(RegisterMutex("First", "P", first, {}, {}, 1), 0);
  InThread([&] { EXPECT_EQ(RegisterMutex("Second", "P", second, {}, {}, 2), 1); });
  EXPECT_EQ(ThrownMessage([] { KZCP::Fini(&CheckMutexesAtTermination); }),
            "Mutexes still open: First\nSecond\n");
  EXPECT_THAT(FReasons, SizeIs(1));
  EXPECT_FALSE(IsFileOpen(first));
  EXPECT_TRUE(IsFileOpen(second));
  UnregisterMutex(123'456, 2);
  EXPECT_THAT(FErrorLog.Text(), HasSubstr(" Unable to unregister mutex #123456\n"));
  FLog.clear();
  UnregisterMutex(0, 3);
  EXPECT_TRUE(IsFileOpen(second));
  UnregisterMutex(0, 2);
  EXPECT_FALSE(IsFileOpen(second));
  EXPECT_THAT(FLog, ElementsAre("Job Mutex still open in call to UnregisterMutex"));
  KZCP::Fini(&CheckMutexesAtTermination);
  settings = {};
}

TEST_F(TJobMutexTest, IsReportedOnceWhenItIsTooOld) {
  FRegistry.Settings.MaxAgeMinutes = 1;
  FSilences[kOwner] = {};
  Register("P");
  Pass(ReportInactivity, 2);
  EXPECT_THAT(FReasons, SizeIs(0));
  Pass(ReportInactivity, 5);
  EXPECT_THAT(FReasons, ElementsAre(StartsWith("Profile P Job Mutex Age = 00:01:")));
}

struct TSaying final : TProfileReport {
  std::string Text() override { return "it says so"; }
};

// In the place of a link that leads elsewhere. A profile's report ends another mutex.
TEST_F(TJobMutexTest, IsToldOfInTheRunReportAndActivityReportsFollowTheFolder) {
  const auto first = Register("P");
  const auto last = Register("R");
  first->Info.RegisteredHandle = 5;
  first->Info.ReportProvider = [&] {
    last->Listed = false;
    return std::make_unique<TSaying>();
  };
  const std::string name =
      "Vellumark Run Report " + SafeFileName(DateTimeToStr(FClock.Now())) + ".txt";
  FMutexes.Write("elsewhere", "");
  std::filesystem::create_symlink(FMutexes.Path("elsewhere"), FReports.Path(name));
  WriteRunReport(FRegistry, "why");
  EXPECT_EQ(FMutexes.Read("elsewhere"), "");
  EXPECT_THAT(FReports.Read(name),
              ContainsRegex("Report: why\n\n#Active Pofiles With Job Mutex Names\n"
                            "P / P.mutex / Handle=[0-9]+ / Orig. Handle=5 / active for 00:00:00\n"
                            "R / R.mutex / Handle=[0-9]+ / active for 00:00:00\n\nThread Report\n"
                            ".*\n\nDetailed Report for P\nit says so\n$"));
  FRegistry.Settings.ReportFolder = "/missing";
  WriteRunReport(FRegistry, "why");
  EXPECT_TRUE(FRegistry.ReportingMalfunction);
  EXPECT_EQ(FormatDuration(-0.1) + FormatDuration(366e6) + FormatDuration(1),
            "1 Day(s) plus 00:00:00");

  SaveActivityReport(FReports.Path(), "a/b");
  SaveActivityReport("", "");
  std::string names;
  for (const auto& file : std::filesystem::directory_iterator(FReports.Path())) {
    names += file.path().filename().string() + "\n";
  }
  EXPECT_EQ(CountOf(names, ".activityreport-"), 2);
  EXPECT_THAT(names, ContainsRegex("-PID[0-9]+[.]a_b[.]activity[^\n]*[.][0-9]{3}[.]txt\n"));
}

}  // namespace
}  // namespace guardian
