#include "diagnostics/exception_report.h"

#include <sys/stat.h>

#include <stdexcept>

#include "diagnostics/Diagnostics.h"
#include "diagnostics/exceptions/PipeCounters.h"
#include "diagnostics/exceptions/StackTrace.h"

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

// A store of one value, which outlives the object.
class TStore final : public TKZCustomINIFile {
 public:
  explicit TStore(std::string& stored) : FStored(stored) {}

  std::string ReadString(std::string_view section, std::string_view key,
                         std::string_view defaultValue) override {
    EXPECT_EQ(std::string(section).append(key), "MainLastDetailedThreadReportLoggedAtUTC");
    return FStored.empty() ? std::string(defaultValue) : FStored;
  }
  void WriteString(std::string_view, std::string_view, std::string_view value) override {
    FWritten = value;
  }
  void UpdateFile() override { FStored = FWritten; }
  std::vector<std::string> ReadSection(std::string_view) override { return {}; }
  std::vector<std::string> ReadSections() override { return {}; }
  std::vector<std::string> ReadSectionValues(std::string_view) override { return {}; }
  bool ValueExists(std::string_view, std::string_view) override { return false; }
  void DeleteKey(std::string_view, std::string_view) override {}
  void EraseSection(std::string_view) override {}

 private:
  std::string& FStored;
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
    Start();
    KZCP::Checkpoint("Testing");
  }
  ~ExceptionReportTest() override {
    StopExceptionReports();
    KZCP::Fini();
  }

  void Start() {
    const auto openStore = [this] {
      ++FOpenings;
      FOnStore();
      return std::make_unique<TStore>(FStored);
    };
    StartExceptionReports({.Heading = "Heading", .OpenStore = openStore, .Clock = &FClock});
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
  std::string FStored;
  int FOpenings = 0;
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

TEST_F(ExceptionReportTest, HasTheThreadReportOnceAnHourAlsoAfterARestart) {
  const auto step = [this](int secondsLater, bool omitted, const char* stored, int openings) {
    FClock.Advance(std::chrono::seconds(secondsLater));
    EXPECT_EQ(NewReport().ends_with(kOmitted), omitted) << openings;
    EXPECT_EQ(FStored, stored);
    EXPECT_EQ(FOpenings, openings);
  };
  const auto restart = [this](const char* stored) {
    StopExceptionReports();
    Start();
    FStored = stored;
  };
  step(0, false, "46347.25", 1);
  step(3599, true, "46347.25", 1);
  restart("46347.25");
  step(0, true, "46347.25", 2);
  step(0, true, "46347.25", 2);
  step(2, false, "46347.29168", 3);
  for (const char* broken : {"46348.25", "no number", "1e400"}) {
    restart(broken);
    step(0, false, "46347.29168", FOpenings + 1);
  }
  Settings().DebugMode = true;
  EXPECT_THAT(NewReport(), Not(EndsWith(kOmitted)));
  Settings().DebugMode = false;
  FOnStore = [] { throw KZException("broken store"); };
  step(7200, false, "46347.29168", FOpenings + 1);
  step(0, true, "46347.29168", FOpenings);
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
  std::filesystem::create_symlink("/dev/full", FFolder.Path("logs/guardian_Exceptions.log"));
  testing::internal::CaptureStderr();
  WriteExceptionReport(FError, "full disk");
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
  FOnStore = [] {
    EXPECT_GT(ExceptionReportsInProgress(), 0);
    InThread([] { HandleException(OurOwn(), TLogToFiles::Yes, "2"); });
  };
  HandleException(FError, TLogToFiles::Yes, "1");
  HandleException(FError, TLogToFiles::Yes, "3");
  EXPECT_EQ(CountOf(Log(), "\nWhere: "), 2);
  EXPECT_THAT(Log(), HasSubstr("\nWhere: 3, CP: "));
}

TEST_F(ExceptionReportTest, NamesTheFunctionThatRaised) {
  const std::string caughtHere = "(Where the exception was caught.)\n";
  EXPECT_THAT(StringForm(FError), HasSubstr(" guardian::RaiseOurOwn("));
  EXPECT_THAT(StringForm(FError), HasSubstr(" (guardian.exe+0x"));
  const std::exception_ptr foreign = Caught([] { RaiseForeign(); });
  // What is thrown and caught on the way must not hide it.
  static_cast<void>(Caught([] { throw std::runtime_error("other"); }));
  EXPECT_THAT(StringForm(foreign), HasSubstr(" guardian::RaiseForeign("));
  EXPECT_THAT(StringForm(foreign), HasSubstr("/exception_report_test.cpp:"));
  EXPECT_THAT(StringForm(foreign), Not(HasSubstr(caughtHere)));
  // Raised elsewhere: there is nothing but the place of the catch.
  std::exception_ptr carried;
  InThread([&] { carried = Caught([] { RaiseForeign(); }); });
  EXPECT_THAT(StringForm(carried), HasSubstr("TestBody"));
  EXPECT_THAT(StringForm(carried), HasSubstr(caughtHere));
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
