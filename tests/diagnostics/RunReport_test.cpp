#include "diagnostics/jobs/RunReport.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <limits>
#include <stdexcept>

#include "common/Exceptions.h"
#include "diagnostics/JobMutexes.h"

namespace guardian {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

const std::string kReportName = "Vellumark Run Report 2026-11-21 06_00_00.txt";

TEST(FormatDurationTest, ShowsDaysAndTheTimeOfDay) {
  const std::pair<TDateTime, const char*> cases[] = {
      {0, "00:00:00"},
      {90 * kSecond, "00:01:30"},
      {1 - kSecond, "23:59:59"},
      {1 - 1e-10, "1 Day(s) plus 00:00:00"},
      {1, "1 Day(s) plus 00:00:00"},
      {1.5, "1 Day(s) plus 12:00:00"},
      {400.25, "400 Day(s) plus 06:00:00"},
      {-0.5, ""},
      {1e300, ""},
      {std::numeric_limits<TDateTime>::infinity(), ""},
      {std::numeric_limits<TDateTime>::quiet_NaN(), ""},
  };
  for (const auto& [duration, text] : cases) EXPECT_EQ(FormatDuration(duration), text) << duration;
}

class TRunReportTest : public TRegistryTest {
 protected:
  void RegisterWith(TReportProvider provider) {
    FRegistry.Register("Odd.mutex", "Odd", 0, std::move(provider), {}, 8);
  }
};

TEST_F(TRunReportTest, ListsWhatIsRegistered) {
  const auto open = Register("Daily");
  const auto freed = Register("Weekly");
  CloseMutex(freed->Info, FClock);
  freed->Info.FreedAt = FClock.SteadyNow() - kMinute;
  FClock.Advance(std::chrono::hours(36));
  FClock.SetWall(46347.25);
  WriteRunReport(FRegistry, "Test");
  ASSERT_THAT(NamesIn(FReports), ElementsAre(kReportName));
  const std::string text = ReportText();
  const std::string openHandle = std::to_string(open->Info.Handle);
  const std::string freedHandle = std::to_string(freed->Info.RegisteredHandle);
  EXPECT_THAT(text, StartsWith("Vellumark Run Report From 2026-11-21 06:00:00 for " +
                               Settings().OwnExecutablePath +
                               "\n\nReason for this Report: Test\n\n"
                               "#Active Pofiles With Job Mutex Names\n"
                               "Daily / Daily.mutex / Handle=" +
                               openHandle +
                               " / active for 1 Day(s) plus 12:00:00\n"
                               "Weekly / Weekly.mutex / Handle=0 / Orig. Handle=" +
                               freedHandle +
                               " / Freed:2026-11-19 17:59:00 / active for 1 Day(s) plus 12:00:00\n"
                               "\nThread Report\n"));
  EXPECT_THAT(text, EndsWith("\n\nDetailed Report for Daily\nAll of Daily\n"
                             "Detailed Report for Weekly\nAll of Weekly\n"));
  EXPECT_THAT(FLog, ElementsAre("Report File Created: " + FReports.Path(kReportName)));
  EXPECT_TRUE(FRegistry.ReportNeeded);
  EXPECT_FALSE(FRegistry.ReportingMalfunction);
}

TEST_F(TRunReportTest, TellsTheReportLogWhereToLook) {
  std::string told;
  FRegistry.Settings.ReportLog = [&](const std::string& text) { told = text; };
  WriteRunReport(FRegistry, "Why");
  EXPECT_EQ(told, "Why\n\nSee Report File: " + FReports.Path(kReportName));
  EXPECT_THAT(ReportText(), HasSubstr("#Active Pofiles With Job Mutex Names\n\nThread Report\n"));
  EXPECT_THAT(ReportText(), Not(HasSubstr("Detailed Report")));
}

TEST_F(TRunReportTest, SaysWhichProviderFailedAndGoesOn) {
  RegisterWith([]() -> std::unique_ptr<TProfileReport> { throw std::runtime_error("no text"); });
  RegisterWith({});
  RegisterWith([this] {
    FRegistry.Unregister(0, 8);
    return std::make_unique<TFixedReport>("gone meanwhile");
  });
  RegisterWith([]() -> std::unique_ptr<TProfileReport> { throw std::runtime_error("not asked"); });
  Register("Last");
  WriteRunReport(FRegistry, "Test");
  EXPECT_THAT(ReportText(), EndsWith("Detailed Report for Odd\nException: no text\n\n"
                                     "Detailed Report for Odd\n"
                                     "Exception: The profile has no report.\n\n"
                                     "Detailed Report for Odd\ngone meanwhile\n"
                                     "Detailed Report for Last\nAll of Last\n"));
  EXPECT_FALSE(FRegistry.ReportingMalfunction);
}

TEST_F(TRunReportTest, AFailureBeforeTheFileSetsTheFlagOnly) {
  FRegistry.Settings.ReportFolder = FReports.Path("missing");
  WriteRunReport(FRegistry, "Test");
  EXPECT_TRUE(FRegistry.ReportingMalfunction.exchange(false));
  EXPECT_THAT(FErrorLog.Text(), HasSubstr("No such file or directory"));
  FRegistry.Settings.ReportFolder = FReports.Path();
  FRegistry.Settings.ReportLog = [](const std::string&) { throw std::runtime_error("deaf"); };
  WriteRunReport(FRegistry, "Test");
  EXPECT_TRUE(FRegistry.ReportingMalfunction);
  EXPECT_THAT(NamesIn(FReports), IsEmpty());
}

// Files of this process take no more than the given bytes, as on a full disk.
class TFileSizeLimit {
 public:
  explicit TFileSizeLimit(rlim_t bytes) : FHandler(::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &FBefore);
    const rlimit limit{bytes, FBefore.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~TFileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &FBefore);
    ::signal(SIGXFSZ, FHandler);
  }
  TFileSizeLimit(const TFileSizeLimit&) = delete;
  TFileSizeLimit& operator=(const TFileSizeLimit&) = delete;

 private:
  rlimit FBefore{};
  sighandler_t FHandler;
};

TEST_F(TRunReportTest, AFullDiskHarmsNobody) {
  Register("A");
  {
    const TFileSizeLimit limit(100);
    WriteRunReport(FRegistry, "Test");
    SaveActivityReport(FReports.Path(), "Full", FClock);
  }
  EXPECT_TRUE(FRegistry.ReportingMalfunction);
  EXPECT_THAT(FLog, IsEmpty());
  WriteRunReport(FRegistry, "Again");
  EXPECT_THAT(ReportText(), EndsWith("All of A\n"));
}

TEST_F(TRunReportTest, ReplacesALinkInsteadOfWritingThroughIt) {
  FMutexes.Write("precious", "untouched");
  std::filesystem::create_symlink(FMutexes.Path("precious"), FReports.Path(kReportName));
  WriteRunReport(FRegistry, "Test");
  EXPECT_EQ(FMutexes.Read("precious"), "untouched");
  EXPECT_THAT(ReportText(), StartsWith("Vellumark Run Report From "));
}

TEST_F(TRunReportTest, IsWholeWhenThreadsReportAtOnce) {
  Register("A");
  FRegistry.Settings.ReportLog = nullptr;
  FRegistry.Settings.LogHook = nullptr;
  const auto report = [this] {
    for (int i = 0; i < 50; ++i) {
      WriteRunReport(FRegistry, "Test");
      SaveActivityReport(FMutexes.Path(), "", FClock);
    }
  };
  TFunctionThread other("Other", report);
  other.Start();
  report();
  other.Join();
  EXPECT_FALSE(FRegistry.ReportingMalfunction);
  ASSERT_THAT(NamesIn(FReports), ElementsAre(kReportName));
  EXPECT_THAT(ReportText(), StartsWith("Vellumark Run Report From "));
  EXPECT_THAT(ReportText(), EndsWith("\n\nDetailed Report for A\nAll of A\n"));
}

class TActivityReportTest : public TRegistryTest {
 protected:
  TActivityReportTest() { FClock.Advance(std::chrono::milliseconds(42)); }

  [[nodiscard]] static std::string Name(const std::string& subject) {
    return std::filesystem::path(Settings().OwnExecutablePath).stem().string() + "-PID" +
           std::to_string(::getpid()) + subject + ".activityreport-2026-11-21 06_00_00.042.txt";
  }
};

TEST_F(TActivityReportTest, NamesProgramProcessSubjectAndMoment) {
  SaveActivityReport(FReports.Path(), "Main: a/b", FClock);
  EXPECT_THAT(NamesIn(FReports), ElementsAre(Name(".Main_ a_b")));
  EXPECT_THAT(ReportText(), StartsWith("Thread Report\n"));
  EXPECT_THAT(ReportText(), HasSubstr(", CP: SaveReport\n"));
  SaveActivityReport("", "", FClock);
  EXPECT_THAT(NamesIn(FReports), ElementsAre(Name(".Main_ a_b"), Name("")));
}

TEST_F(TActivityReportTest, AMissingFolderLeavesALineInTheErrorLog) {
  SaveActivityReport(FReports.Path("missing"), "", FClock);
  EXPECT_THAT(FErrorLog.Text(), HasSubstr("SaveActivityReport Exception: create "));
}

}  // namespace
}  // namespace guardian
