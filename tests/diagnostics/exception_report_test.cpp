#include "diagnostics/exception_report.h"

#include <sys/stat.h>

#include "common/Event.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exceptions/PipeCounters.h"
#include "diagnostics/exceptions/StackTrace.h"
#include "support/TestSupport.h"

// Outside the namespace: the class of a foreign exception is told with its namespace.
struct EFOpenError : std::exception {};
struct EFOpenErrors : std::exception {};
struct EMySocketError : std::exception {};

namespace guardian {

// Outside the anonymous namespace: these are looked for by name in the reports.
[[gnu::noinline]] void RaiseOurOwn() { throw KZException("gone wrong"); }
[[gnu::noinline]] void RaiseForeign() { throw std::out_of_range("foreign"); }

namespace {

template <typename TRaise>
std::exception_ptr Caught(const TRaise& raise) {
  try {
    raise();
  } catch (...) {
    return std::current_exception();
  }
  return nullptr;
}

std::exception_ptr OurOwn() {
  return Caught([] { RaiseOurOwn(); });
}

// Another thread fails in the middle of its report.
struct EDuring : std::exception {
  const char* what() const noexcept override {
    EXPECT_GT(ExceptionReportsInProgress(), 0);
    InThread([] { HandleException(OurOwn(), TLogToFiles::Yes, "2"); });
    return "during";
  }
};

// A store of one value, which outlives the object.
class TStore final : public TEmptyStore {
 public:
  explicit TStore(TSharedText& stored) : FStored(stored) {}

  std::string ReadString(std::string_view section, std::string_view key,
                         std::string_view defaultValue) override {
    EXPECT_EQ(std::string(section).append(key), "MainLastDetailedThreadReportLoggedAtUTC");
    return FStored.Get()->empty() ? std::string(defaultValue) : FStored.Copy();
  }
  void WriteString(std::string_view, std::string_view, std::string_view value) override {
    FWritten = value;
  }
  void UpdateFile() override { FStored.Set(FWritten); }

 private:
  TSharedText& FStored;
  std::string FWritten;
};

const std::string kOmitted = "Complete Thread Report Omitted\n";

class ExceptionReportTest : public testing::Test {
 protected:
  ExceptionReportTest() {
    Settings().OwnExecutablePath = FFolder.Path("guardian.exe");
    Settings().CommandLine = {"guardian.exe", "start", "two words"};
    Settings().LogDirectory.Set(FFolder.Path("logs"));
    std::filesystem::create_directory(FFolder.Path("logs"));
    FFolder.Write("guardian.exe", "12345");
    KZCP::Init();
    const auto openStore = [this](TStoreUse use) -> std::unique_ptr<TKZCustomINIFile> {
      KZCP::Checkpoint("In the store");
      if (use == TStoreUse::Look) return nullptr;
      FOnStore();
      return std::make_unique<TStore>(FStored);
    };
    StartExceptionReports({.Heading = "Heading", .OpenStore = openStore, .Clock = &FClock});
    KZCP::Checkpoint("Testing");
  }
  ~ExceptionReportTest() override {
    StopExceptionReports();
    KZCP::Fini();
  }

  std::string Log() const { return FFolder.Read("logs/guardian_Exceptions.log"); }

  // The log of one report more than before.
  std::string NewReport() {
    std::filesystem::remove(FFolder.Path("logs/guardian_Exceptions.log"));
    WriteExceptionReport(FError, "here");
    return Log();
  }
  std::string StringForm(const std::exception_ptr& error, const std::string& where = "here") {
    std::string text;
    GetExceptionReport(text, error, where, TThreadReportPart::Without);
    return text;
  }

  const TSettingsBackup FSettings;
  const TTempFolder FFolder;
  TFakeClock FClock;
  TSharedText FStored;
  std::function<void()> FOnStore = [] {};
  const std::exception_ptr FError = OurOwn();
};

TEST_F(ExceptionReportTest, KnowsTheHarmlessOnesByClassAndMessageExactly) {
  const std::pair<std::exception_ptr, bool> cases[] = {
      {Caught([] { throw SoftException("expected"); }), true},
      {Caught([] { throw EFOpenError(); }), true},
      {Caught([] { throw EMySocketError(); }), true},
      {Caught([] { throw std::runtime_error("Operation Canceled"); }), true},
      {Caught([] { throw std::runtime_error("operation canceled"); }), false},
      {Caught([] { throw EFOpenErrors(); }), false},
      {Caught([] { throw 42; }), false},
      {nullptr, false},
  };
  for (const auto& [error, harmless] : cases) {
    EXPECT_EQ(IsHarmless(error), harmless) << DescribeException(error).ClassName;
  }
}

TEST_F(ExceptionReportTest, HasTwoForms) {
  PipeCounters().ClientPipes = 1;
  PipeCounters().ServerPipeThreads = 4;
  const std::string first = "Application Error At " +
                            AddressText(DescribeException(FError).Stack.front()) +
                            " on 2026-11-21 06:00:00\nException KZException: gone wrong\n";
  const std::string path = FFolder.Path("guardian.exe") +
                           "\nReporting Thread ID: " + std::to_string(CurrentThreadId()) +
                           "\nSize: 5";
  const std::string rest =
      "Parameter: start\nParameter: \"two words\"\n\n"
      "Client Pipes: 1, Threads: 0\nServer Pipes: 0, Threads: 4\n\nStack Trace\n-----------\n";
  std::string text = StringForm(FError);
  EXPECT_THAT(text,
              StartsWith(first + "Executable:  " + path + " (32-bit)\nhere\n" + rest + "#0 0x"));
  EXPECT_THAT(text, EndsWith(")\n\n\n-----------\n"));
  EXPECT_THAT(StringForm(FError, ""), HasSubstr(" (32-bit)\nParameter: start\n"));
  GetExceptionReport(text, FError, "", TThreadReportPart::With);
  EXPECT_THAT(text, HasSubstr(")\n\n\nThread Report\n-----------------\n"));
  EXPECT_THAT(text, EndsWith(", CP: Testing\n-----------\n"));

  text = NewReport();
  EXPECT_THAT(text, HasSubstr("-----------\n\nThread Report\n-----------------\n"));
  text = NewReport();
  EXPECT_THAT(text, StartsWith("Heading\n" + first + "Where: here, CP: Testing\nExecutable: " +
                               path + "\n" + rest + "Stack Trace: #0 0x"));
  EXPECT_THAT(text, EndsWith(")\n-----------\n\n" + kOmitted));
  PipeCounters().ClientPipes = 0;
  PipeCounters().ServerPipeThreads = 0;
}

TEST(ReportThrottleTest, AdmitsOnceAnHourAlsoAfterARestart) {
  TSharedText stored;
  std::function<void()> onOpen = [] {};
  const TStoreOpener open = [&](TStoreUse use) -> std::unique_ptr<TKZCustomINIFile> {
    onOpen();
    if (use == TStoreUse::Look && stored.Get()->empty()) return nullptr;
    return std::make_unique<TStore>(stored);
  };
  std::optional<TReportThrottle> run;
  const auto restart = [&] {
    run.emplace().UseStore(open);
    EXPECT_TRUE(run->WaitForStore(std::chrono::minutes(1)));
  };
  const auto step = [&](int second, bool admitted, const char* kept) {
    EXPECT_EQ(run->Admit(46347.25 + second * kSecond), admitted) << second;
    run->KeepNewTime(open);
    EXPECT_TRUE(run->WaitForStore(std::chrono::minutes(1)));
    EXPECT_EQ(stored.Copy(), kept);
  };
  restart();
  step(0, true, "46347.25");
  step(3599, false, "46347.25");
  restart();
  step(3599, false, "46347.25");
  step(3601, true, "46347.29168");
  for (const char* broken : {"46348.25", "no number", "1e400", "nan", "-inf"}) {
    stored.Set(broken);
    restart();
    step(3601, true, "46347.29168");
  }
  onOpen = [] { throw KZException("broken store"); };
  step(7202, true, "46347.29168");
  step(7202, false, "46347.29168");
}

TEST_F(ExceptionReportTest, NeitherWaitsForALockedStoreNorShowsItsCheckpoint) {
  TKZEvent unlocked("Unlocked", TEventReset::Manual);
  FOnStore = [&] { unlocked.WaitFor(std::chrono::seconds(10)); };
  HandleException(FError, TLogToFiles::Yes, "1");
  FClock.Advance(std::chrono::hours(6));
  InThread([] { HandleException(OurOwn(), TLogToFiles::Yes, "2"); });
  EXPECT_EQ(FStored.Copy(), "");
  unlocked.Signal();
  EXPECT_TRUE(Eventually([&] { return FStored.Copy() == "46347.5"; })) << "the later one";
  const std::string own = "Thread " + std::to_string(CurrentThreadId()) + ", CP: Testing\n";
  EXPECT_THAT(Log(), AllOf(HasSubstr("\nWhere: 1, CP: Testing\n"), HasSubstr(own),
                           HasSubstr("\nWhere: 2, CP: ")));
  EXPECT_THAT(NewReport(), EndsWith(kOmitted));
  StopExceptionReports();
  ::signal(SIGBUS, SIG_IGN);
  StartExceptionReports({.Clock = &FClock});
  EXPECT_EQ(::signal(SIGBUS, SIG_DFL), SIG_IGN) << "a handler of others stays";
  EXPECT_THAT(NewReport(), Not(EndsWith(kOmitted))) << "another run";
  Settings().DebugMode = true;
  EXPECT_THAT(NewReport(), Not(EndsWith(kOmitted)));
}

TEST_F(ExceptionReportTest, RenamesALogAboveTheLimit) {
  const std::string log = FFolder.Path("logs/guardian_Exceptions.log");
  const std::string previous = FFolder.Path("logs/guardian_Exceptions.prev.log");
  const mode_t mask = ::umask(0);
  for (const bool debugMode : {false, true}) {
    Settings().DebugMode = debugMode;
    const std::uintmax_t limit = debugMode ? 1'048'576 : 104'857'600;
    std::filesystem::remove(previous);
    FFolder.Write("logs/guardian_Exceptions.log", "old");
    std::filesystem::resize_file(log, limit);
    WriteExceptionReport(FError, "");
    EXPECT_FALSE(std::filesystem::exists(previous));
    FFolder.Write("logs/guardian_Exceptions.prev.log", "older");
    std::filesystem::resize_file(log, limit + 1);
    WriteExceptionReport(FError, "");
    EXPECT_EQ(std::filesystem::file_size(previous), limit + 1);
    EXPECT_EQ(CountOf(Log(), "Application Error At"), 1);
    EXPECT_EQ(std::filesystem::status(log).permissions(), std::filesystem::perms(0644));
  }
  ::umask(mask);
}

TEST_F(ExceptionReportTest, DoesNoHarmWhereItCannotWrite) {
  const auto descriptors = OpenDescriptors();
  ASSERT_EQ(::mkfifo(FFolder.Path("logs/guardian_Exceptions.log").c_str(), 0600), 0);
  testing::internal::CaptureStderr();
  WriteExceptionReport(FError, "a pipe in the log's place");
  Settings().LogDirectory.Set("/proc/self");
  WriteExceptionReport(FError, "read-only");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  WriteExceptionReport(FError, "target", [](std::string_view) { throw KZException("refused"); });
  EXPECT_EQ(ExceptionReportsInProgress(), 0);
  EXPECT_EQ(OpenDescriptors(), descriptors);
  Settings().LogDirectory.Set(FFolder.Path());
  HandleException(FError, TLogToFiles::Yes, "afterwards");
  EXPECT_TRUE(FFolder.Has("guardian_Exceptions.log"));
}

TEST_F(ExceptionReportTest, HandlesExceptionsAsTheOuterHandler) {
  const TErrorLogInFolder errorLog;
  const std::exception_ptr soft = Caught([] { throw SoftException("expected"); });
  HandleException(soft, TLogToFiles::Yes, "in a thread");
  EXPECT_EQ(errorLog.Text(), "expected\nin a thread\n");
  EXPECT_EQ(Log(), "");

  HandleException(FError, TLogToFiles::No, "A");
  HandleException(FError, TLogToFiles::Yes, "B");
  WriteExceptionReport(soft, "C");
  EXPECT_EQ(CountOf(Log(), "\nWhere: "), 2);
  EXPECT_THAT(Log(), EndsWith("\nexpected\n"));
  EXPECT_EQ(CountOf(errorLog.Text(), "\nWhere: "), 1);
  EXPECT_THAT(errorLog.Text(), HasSubstr("\nWhere: B, CP: "));
}

TEST_F(ExceptionReportTest, DropsWhatReachesTheOuterHandlerMeanwhile) {
  HandleException(Caught([] { throw EDuring(); }), TLogToFiles::Yes, "1");
  HandleException(FError, TLogToFiles::Yes, "3");
  EXPECT_EQ(CountOf(Log(), "\nWhere: "), 2);
  EXPECT_THAT(Log(), HasSubstr("\nWhere: 3, CP: "));
}

TEST_F(ExceptionReportTest, NamesTheFunctionThatRaised) {
  const std::string caughtHere = "(Where the exception was caught.)\n";
  const std::string innermost = "\n-+\n#0 0x[0-9a-f]+ guardian::";
  EXPECT_THAT(StringForm(FError), ContainsRegex(innermost + "RaiseOurOwn\\("));
  EXPECT_THAT(StringForm(FError), HasSubstr(" (guardian.exe+0x"));
  const std::exception_ptr foreign = Caught([] { RaiseForeign(); });
  // What is thrown and caught on the way must not hide it.
  static_cast<void>(Caught([] { throw std::runtime_error("other"); }));
  EXPECT_THAT(StringForm(foreign), ContainsRegex(innermost + "RaiseForeign\\("));
  EXPECT_THAT(StringForm(foreign), HasSubstr("/exception_report_test.cpp:"));
  EXPECT_THAT(StringForm(foreign), Not(HasSubstr(caughtHere)));
  std::exception_ptr carried;
  InThread([&] { carried = Caught([] { RaiseForeign(); }); });
  EXPECT_THAT(StringForm(carried), HasSubstr(" guardian::RaiseForeign("));
  EXPECT_THAT(StringForm(Caught([] { throw 42; })), HasSubstr("/exception_report_test.cpp:"));
  // Raised by the C++ library, where the exceptions before had their place: there is nothing but
  // the place of the catch.
  carried = nullptr;
  EXPECT_THAT(StringForm(Caught([] { static_cast<void>(std::string().at(1)); })),
              AllOf(Not(HasSubstr("RaiseForeign")), HasSubstr("TestBody"), HasSubstr(caughtHere)));
  InThread([] { RaiseForeign(); });
  EXPECT_THAT(Log(), HasSubstr("Where: Thread Test, CP: "));
}

TEST_F(ExceptionReportTest, KeepsReportsWholeThatThreadsWriteAtOnce) {
  TCrew(4, [](int) {
    for (int n = 0; n < 25; ++n) WriteExceptionReport(OurOwn(), "here");
  }).Join();
  const std::string log = Log();
  EXPECT_EQ(CountOf(log, kOmitted + "Heading\nApplication Error At "),
            log.ends_with(kOmitted) ? 98 : 99);
  EXPECT_EQ(CountOf(log, "\nThread Report\n"), 1);
}

}  // namespace
}  // namespace guardian
