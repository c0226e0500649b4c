#include "diagnostics/job_mutex.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
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
using std::chrono::seconds;

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
  void RegisterWith(TFileHandle handle, TReportProvider provider) {
    FRegistry.Register("Odd.mutex", "Odd", handle, std::move(provider), {}, 8);
    Entries().back()->Info.OwnerThread = kOwner;
  }

  void Pass(TMutexGuardianThread::TPass pass, int count = 1) {
    const TCheckpointLookup lookUp = [this](KZCP::TThreadId thread) -> KZCP::TCPTimes {
      const auto found = FSilences.find(thread);
      if (found == FSilences.end()) return {};
      return {FClock.TickCount() - found->second.Time.count(), found->second.Allowance};
    };
    for (int i = 0; i < count; ++i) {
      FClock.Advance(seconds(20));
      pass(TPassMoment::Of(FClock), FRegistry, lookUp);
    }
  }

  [[nodiscard]] std::string ReportText() const { return FReports.Read(kReportName); }

  struct TSilence {
    milliseconds Time{0};
    std::int64_t Allowance = 0;
  };
  std::map<KZCP::TThreadId, TSilence> FSilences;  // Of the threads with a record.

  const TTempFolder FReports;
  const TTempFolder FMutexes;
  const TErrorLogInFolder FErrorLog;
  TFakeClock FClock;
  TMutexRegistry FRegistry{FClock};
  std::vector<std::string> FLog;
  std::vector<std::string> FReasons;  // Of the run reports.
};

// What the two passes do, told once more in plain words.
class TMutexGuardianLifeTest : public TJobMutexTest, public testing::WithParamInterface<int> {
 protected:
  struct TStrikes {
    int Strikes = 0;
    int Reports = 0;
    // Whether this has gone wrong in the three passes before, too.
    bool Fourth(bool wrong) {
      if (wrong && Strikes == 3) return true;
      Strikes = wrong ? Strikes + 1 : 0;
      return false;
    }
  };
  struct TJob {
    std::shared_ptr<TMutexEntry> Entry;
    bool Open = true;
    bool FreedReported = false;
    bool AgeReported = false;
    TStrikes Freeing = {};
    TStrikes Reporting = {};
  };

  bool IsSilent(KZCP::TThreadId thread, int minutes) {
    if (minutes < 1 || !FSilences.contains(thread)) return minutes > 0;
    return FSilences[thread].Time / seconds(1) > FSilences[thread].Allowance + minutes * 60;
  }
  std::string Words(KZCP::TThreadId thread, const std::string& since, const std::string& gone) {
    if (!FSilences.contains(thread)) return gone;
    const auto silent = static_cast<TDateTime>(FSilences[thread].Time / seconds(1));
    return since + FormatDuration(silent * kSecond) + "\n";
  }
  bool IsDue(KZCP::TThreadId thread, TStrikes& strikes, TDateTime& last) {
    const int limit = FRegistry.Settings.MainThreadInactivityMinutes;
    const TDateTime now = FClock.SteadyNow();
    if (!strikes.Fourth(IsSilent(thread, limit) && strikes.Reports < 10 &&
                        now > last + limit * kMinute)) {
      return false;
    }
    ++strikes.Reports;
    last = now;
    return true;
  }

  void Report() {
    const int maxAge = FRegistry.Settings.MaxAgeMinutes;
    std::string message;
    const auto mainThread = KZCP::MainThreadId();
    if (IsDue(mainThread, FMain, FLastMainReport)) {
      message =
          Words(mainThread, "Main Thread Inactive For ", "Main Thread no longer seems to exist");
    }
    for (TJob& job : FJobs) {
      const auto& [profile, owner] =
          std::tie(job.Entry->Info.ProfileName, job.Entry->Info.OwnerThread);
      const TDateTime age = FClock.SteadyNow() - job.Entry->Info.RegisteredAt;
      if (!job.Open && !job.FreedReported) {
        job.FreedReported = true;
        FExpectedFreed.push_back(job.Entry->Info.RegisteredHandle);
        message += "Job Mutex freed for profile " + profile +
                   Words(owner, ", Inactive For ", ", thread no longer exists\n");
      }
      if (job.Open && maxAge > 0 && !job.AgeReported && age > maxAge * kMinute) {
        job.AgeReported = true;
        message += "Profile " + profile + " Job Mutex Age = " + FormatDuration(age) + "\n";
      } else if (job.Open && IsDue(owner, job.Reporting, FLastProfileReport)) {
        message += "Profile " + profile +
                   Words(owner, " Main Thread Inactive For ", " Main Thread no longer exists");
      }
      if (!message.empty()) FExpectedReasons.push_back(message);
    }
  }

  void Change(TRandom& random) {
    const std::array edges{0, 60'999, 61'000, 120'999, 121'000, 600'999, 601'000};
    const std::array<KZCP::TThreadId, 3> threads{KZCP::MainThreadId(), 1, 2};
    const auto act = static_cast<std::size_t>(random.Below(60));
    if (act < 3) {
      const int allowance = random.Below(2) * 5;
      const milliseconds edge(edges[static_cast<std::size_t>(random.Below(7))]);
      FSilences[threads[act]] = {edge + seconds(allowance), allowance};
      if (random.Below(3) == 0) FSilences.erase(threads[act]);
    } else if (act == 3 && FJobs.size() < 3) {
      FJobs.push_back({Register(
          "P" + std::to_string(random.Below(9)), 1 + random.Below(2),
          [this](TFileHandle handle) { FFreed.push_back(handle); }, ++FNumber)});
    } else if (act == 4 && FJobs.size() > 1) {
      const TFileHandle handle = FJobs.front().Entry->Info.RegisteredHandle;
      if (FJobs.front().Open) CloseHandle(handle);
      FRegistry.Unregister(handle, FJobs.front().Entry->Info.MutexNumber);
      FJobs.erase(FJobs.begin());
    }
  }

  std::vector<TJob> FJobs;
  std::int32_t FNumber = 0;
  TStrikes FMain;
  TDateTime FLastMainReport = 0;
  TDateTime FLastProfileReport = 0;
  std::vector<TFileHandle> FFreed;
  std::vector<TFileHandle> FExpectedFreed;
  std::vector<std::string> FExpectedReasons;
};

TEST_P(TMutexGuardianLifeTest, FreesAndReportsAsAModelDoes) {
  const auto life = static_cast<std::size_t>(GetParam());
  TRandom random(GetParam());
  FRegistry.Settings.JobMutexInactivityMinutes = std::array{10, 0, 1, 10'000'000}[life % 4];
  FRegistry.Settings.MainThreadInactivityMinutes = std::array{2, 1, 0}[life % 3];
  FRegistry.Settings.MaxAgeMinutes = std::array{0, 5}[life / 2 % 2];
  for (int step = 0; step < 400; ++step) {
    Change(random);
    Pass(FreeInactiveMutexes);
    for (TJob& job : FJobs) {
      const TMutexInfo& info = job.Entry->Info;
      const int limit = FRegistry.Settings.JobMutexInactivityMinutes;
      if (job.Open && job.Freeing.Fourth(IsSilent(info.OwnerThread, limit))) job.Open = false;
      ASSERT_EQ(info.Handle > 0, job.Open) << "step " << step;
      ASSERT_EQ(IsFileOpen(info.RegisteredHandle), job.Open) << "step " << step;
    }
    FRegistry.ReportNeeded = false;
    const int mainReports = FMain.Reports;
    const std::size_t reports = FExpectedReasons.size();
    Pass(ReportInactivity);
    Report();
    ASSERT_EQ(FReasons, FExpectedReasons) << "step " << step;
    ASSERT_EQ(FFreed, FExpectedFreed) << "step " << step;
    ASSERT_EQ(FRegistry.ReportNeeded,
              FMain.Reports > mainReports || FExpectedReasons.size() > reports);
  }
}

INSTANTIATE_TEST_SUITE_P(Settings, TMutexGuardianLifeTest, testing::Range(0, 12));

TEST_F(TJobMutexTest, CallbacksMayChangeTheListDuringTheWalkAndMayFail) {
  std::shared_ptr<TMutexEntry> second;
  const auto onFreed = [&](TFileHandle) {
    CloseHandle(second->Info.Handle);
    FRegistry.Unregister(second->Info.Handle, 2);
    Register("New", kOwner, [](TFileHandle) { FAIL() << "not freed"; });
    throw std::runtime_error("callback failed");
  };
  Register("A", kOwner, onFreed, 1);
  second = Register("B", 1, {}, 2);
  Register("C", 1, {}, 3);
  FSilences[1] = {};
  RegisterWith(987'654'321, {});
  Pass(FreeInactiveMutexes, 4);
  EXPECT_THAT(FErrorLog.Text(), HasSubstr("Invalid handle passed to CloseHandle"));
  Pass(ReportInactivity);
  const std::string freed = "Job Mutex freed for profile A, thread no longer exists\n";
  const std::string odd = "Job Mutex freed for profile Odd, thread no longer exists\n";
  EXPECT_THAT(FReasons, ElementsAre(freed, freed, freed + odd)) << "in A's turn, C's and Odd's";
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
  EXPECT_EQ(FErrorLog.Text(),
            "Unable to unregister mutex #123456\nKnown Job Mutex List:\nB.mutex\n\n");
  EXPECT_FALSE(FRegistry.ReportNeeded);

  const TFileHandle openHandle = open->Info.Handle;
  open->Info.MutexNumber = 8;
  RegisterWith(987'654'321, {});
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
      {0, "00:00:00"},
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

// Files of this process take no more than so many bytes, as on a full disk.
void LimitFiles(rlim_t bytes) {
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{bytes, RLIM_INFINITY};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
}

TEST_F(TJobMutexTest, AReportThatFailsSetsTheFlagAndHarmsNothing) {
  Register("A");
  FRegistry.Settings.ReportFolder = FReports.Path("missing");
  WriteRunReport(FRegistry, "Test");
  EXPECT_TRUE(FRegistry.ReportingMalfunction.exchange(false));
  EXPECT_THAT(FErrorLog.Text(), HasSubstr("WriteRunReport Exception: create " + FReports.Path()));
  FRegistry.Settings.ReportFolder = FReports.Path();
  LimitFiles(100);
  WriteRunReport(FRegistry, "Test");
  LimitFiles(RLIM_INFINITY);
  EXPECT_TRUE(FRegistry.ReportingMalfunction.exchange(false));
  EXPECT_THAT(FLog, IsEmpty());
  WriteRunReport(FRegistry, "Again");
  EXPECT_FALSE(FRegistry.ReportingMalfunction);
  EXPECT_THAT(ReportText(), EndsWith("All of A\n"));
}

TEST_F(TJobMutexTest, AnActivityReportIsNamedAfterProgramProcessSubjectAndMoment) {
  const TSettingsBackup backup;
  Settings().OwnExecutablePath = "/opt/x/program.exe";
  SaveActivityReport(FReports.Path("missing"), "");
  EXPECT_THAT(FErrorLog.Text(), HasSubstr("SaveActivityReport Exception: create "));
  SaveActivityReport(FMutexes.Path(), "Main: a/b");
  ASSERT_THAT(NamesIn(FMutexes), SizeIs(1));
  const std::string name = NamesIn(FMutexes)[0];
  EXPECT_THAT(FMutexes.Read(name), StartsWith("Thread Report\n"));
  EXPECT_THAT(FMutexes.Read(name), HasSubstr(", CP: SaveReport\n"));
  std::filesystem::remove(FMutexes.Path(name));
  SaveActivityReport("", "");
  ASSERT_THAT(NamesIn(FMutexes), SizeIs(1)) << "the folder is remembered";
  const std::string start = "program-PID" + std::to_string(::getpid());
  const std::string end = ".activityreport-9999-99-99 99_99_99.999.txt";
  EXPECT_THAT(name, StartsWith(start + ".Main_ a_b."));
  EXPECT_EQ(Nines(name), Nines(start) + ".Main_ a_b" + end);
  EXPECT_EQ(Nines(NamesIn(FMutexes)[0]), Nines(start) + end);
}

}  // namespace
}  // namespace guardian
