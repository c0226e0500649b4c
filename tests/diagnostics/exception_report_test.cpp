#include "diagnostics/exception_report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/Exceptions.h"
#include "common/Settings.h"
#include "common/Texts.h"
#include "diagnostics/Diagnostics.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exceptions/PipeCounters.h"
#include "diagnostics/logs/ExceptionsLog.h"
#include "diagnostics/logs/ProtocolLog.h"
#include "support/FakeClock.h"

namespace guardian {

// Outside the anonymous namespace: these two are looked for by name in the stack traces.
[[gnu::noinline]] void RaiseOurOwn(const std::string& message) { throw KZException(message); }
[[gnu::noinline]] void RaiseForeign(int index) {
  if (index >= 0) throw std::out_of_range("foreign");
}

class EIdConnClosedGracefully : public KZException {
 public:
  using KZException::KZException;
};
class EZFException : public KZException {
 public:
  using KZException::KZException;
};
class EMySocketError : public KZException {
 public:
  using KZException::KZException;
};
class EFOpenErrors : public KZException {
 public:
  using KZException::KZException;
};

namespace {

using testing::HasSubstr;
using testing::Not;

template <typename TRaise>
std::exception_ptr Caught(const TRaise& raise) {
  try {
    raise();
  } catch (...) {
    return std::current_exception();
  }
  return nullptr;
}

std::exception_ptr OurOwn(const std::string& message = "gone wrong") {
  return Caught([&] { RaiseOurOwn(message); });
}

std::size_t CountOf(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

int OpenDescriptors() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

// What a store keeps beyond the object that writes it.
struct TStored {
  std::map<std::string, std::string> Values;
  int Openings = 0;
  int Updates = 0;
  bool Fails = false;
};

class TStore final : public TKZCustomINIFile {
 public:
  explicit TStore(TStored& stored) : FStored(stored) { ++FStored.Openings; }

  std::string ReadString(std::string_view section, std::string_view key,
                         std::string_view defaultValue) override {
    if (FStored.Fails) throw KZException("broken store");
    const auto found = FStored.Values.find(KeyOf(section, key));
    return found != FStored.Values.end() ? found->second : std::string(defaultValue);
  }
  void WriteString(std::string_view section, std::string_view key,
                   std::string_view value) override {
    FStored.Values[KeyOf(section, key)] = value;
  }
  std::vector<std::string> ReadSection(std::string_view) override { return {}; }
  std::vector<std::string> ReadSections() override { return {}; }
  std::vector<std::string> ReadSectionValues(std::string_view) override { return {}; }
  bool ValueExists(std::string_view, std::string_view) override { return false; }
  void DeleteKey(std::string_view, std::string_view) override {}
  void EraseSection(std::string_view) override {}
  void UpdateFile() override { ++FStored.Updates; }

  static std::string KeyOf(std::string_view section, std::string_view key) {
    return std::string(section) + "/" + std::string(key);
  }

 private:
  TStored& FStored;
};

class ExceptionReportTest : public testing::Test {
 protected:
  void SetUp() override {
    Settings().OwnExecutablePath = FFolder.Path("guardian.exe");
    Settings().CommandLine = {"guardian.exe", "start", "two words"};
    Settings().LogDirectory.Set(FFolder.Path("logs"));
    std::filesystem::create_directory(FFolder.Path("logs"));
    FFolder.Write("guardian.exe", "12345");
    KZCP::Init();
    Start();
    KZCP::Checkpoint("Testing");
  }
  void TearDown() override {
    StopExceptionReports();
    KZCP::Fini();
    Settings().DebugMode = false;
    Settings().LogDirectory.Set("");
    Settings().OwnExecutablePath = FOwnPath;
    Settings().CommandLine = FCommandLine;
  }

  void Start() {
    StartExceptionReports(
        {.Heading = "Heading", .OpenStore = [this] { return OpenStore(); }, .Clock = &FClock});
  }
  void Restart() {
    StopExceptionReports();
    Start();
  }
  std::unique_ptr<TKZCustomINIFile> OpenStore() {
    if (FOnStore) FOnStore();
    return std::make_unique<TStore>(FStored);
  }

  std::string Log() const { return FFolder.Read("logs/guardian_Exceptions.log"); }

  // The log of one report more than before.
  std::string NewReport() {
    std::filesystem::remove(FFolder.Path("logs/guardian_Exceptions.log"));
    WriteExceptionReport(OurOwn(), "here");
    return Log();
  }

  const std::string FOwnPath = Settings().OwnExecutablePath;
  const std::vector<std::string> FCommandLine = Settings().CommandLine;
  const TTempFolder FFolder;
  TFakeClock FClock;
  TStored FStored;
  std::function<void()> FOnStore;
};

// The report with what differs from run to run left out: the address, the times, the thread, the
// frames.
std::string Stable(std::string text) {
  text = ReplaceAll(text, std::to_string(CurrentThreadId()), "<thread>");
  const std::size_t address = text.find("At 0x") + 3;
  text.replace(address, text.find(" on ") - address, "<address>");
  std::string result;
  for (const auto line : Split(text, '\n')) {
    const std::size_t frame = line.find('#');
    if (frame == std::string_view::npos) {
      result.append(line).append("\n");
    } else if (frame > 0) {
      result.append(line.substr(0, frame)).append("<frames>\n");
    } else if (line.starts_with("#0 ")) {
      result.append("<frames>\n");
    }
  }
  result.pop_back();
  return result;
}

TEST_F(ExceptionReportTest, KnowsTheHarmlessOnesByClassAndMessageExactly) {
  const struct {
    std::exception_ptr Error;
    bool Harmless;
  } cases[] = {
      {Caught([] { throw SoftException("expected"); }), true},
      {Caught([] { throw EIdConnClosedGracefully("x"); }), true},
      {Caught([] { throw EZFException("x"); }), true},
      {Caught([] { throw EMySocketError("x"); }), true},
      {Caught([] { throw KZException("Operation Canceled"); }), true},
      {Caught([] { throw std::runtime_error("Operation Canceled"); }), true},
      {Caught([] { throw KZException("operation canceled"); }), false},
      {Caught([] { throw KZException("Socket"); }), false},
      {Caught([] { throw EFOpenErrors("x"); }), false},
      {Caught([] { throw 42; }), false},
      {nullptr, false},
  };
  for (const auto& each : cases) {
    const TExceptionDetails details = DescribeException(each.Error);
    EXPECT_EQ(IsHarmless(each.Error), each.Harmless) << details.ClassName << details.Message;
  }
}

TEST_F(ExceptionReportTest, HasTheStringForm) {
  PipeCounters().ClientPipes = 1;
  PipeCounters().ServerPipeThreads = 4;
  std::string text;
  GetExceptionReport(text, OurOwn(), "in the test", TThreadReportPart::Without);
  PipeCounters().ClientPipes = 0;
  PipeCounters().ServerPipeThreads = 0;
  EXPECT_EQ(Stable(text),
            "Application Error At <address> on 2026-11-21 06:00:00\n"
            "Exception KZException: gone wrong\n"
            "Executable:  " +
                FFolder.Path("guardian.exe") +
                "\n"
                "Reporting Thread ID: <thread>\n"
                "Size: 5 (32-bit)\n"
                "in the test\n"
                "Parameter: start\n"
                "Parameter: \"two words\"\n"
                "\n"
                "Client Pipes: 1, Threads: 0\n"
                "Server Pipes: 0, Threads: 4\n"
                "\n"
                "Stack Trace\n"
                "-----------\n"
                "<frames>\n"
                "\n"
                "\n"
                "-----------\n");
  GetExceptionReport(text, OurOwn(), "", TThreadReportPart::With);
  EXPECT_THAT(text, HasSubstr("(32-bit)\nParameter: start\n"));
  EXPECT_THAT(text, HasSubstr("\n\n\nThread Report\n-----------------\n"));
  EXPECT_THAT(text, HasSubstr("\n-----------\n"));
  GetExceptionReport(text, Caught([] { throw SoftException("as expected"); }), "x",
                     TThreadReportPart::With);
  EXPECT_EQ(text, "as expected");
  EXPECT_EQ(ExceptionReportsInProgress(), 0);
}

TEST_F(ExceptionReportTest, HasTheFileFormAndOmitsTheThreadReportWithinTheHour) {
  EXPECT_THAT(NewReport(), HasSubstr("-----------\n\nThread Report\n-----------------\n"));
  EXPECT_EQ(Stable(NewReport()),
            "Heading\n"
            "Application Error At <address> on 2026-11-21 06:00:00\n"
            "Exception KZException: gone wrong\n"
            "Where: here, CP: Testing\n"
            "Executable: " +
                FFolder.Path("guardian.exe") +
                "\n"
                "Reporting Thread ID: <thread>\n"
                "Size: 5\n"
                "Parameter: start\n"
                "Parameter: \"two words\"\n"
                "\n"
                "Client Pipes: 0, Threads: 0\n"
                "Server Pipes: 0, Threads: 0\n"
                "\n"
                "Stack Trace\n"
                "-----------\n"
                "Stack Trace: <frames>\n"
                "-----------\n"
                "\n"
                "Complete Thread Report Omitted\n");
}

TEST_F(ExceptionReportTest, CountsTheHourFromThePersistedTimeAlsoAfterARestart) {
  const std::string omitted = "Complete Thread Report Omitted\n";
  EXPECT_THAT(NewReport(), Not(HasSubstr(omitted)));
  EXPECT_EQ(FStored.Values["Main/LastDetailedThreadReportLoggedAtUTC"], "46347.25");
  EXPECT_EQ(FStored.Updates, 1);
  FClock.Advance(std::chrono::minutes(59));
  EXPECT_THAT(NewReport(), HasSubstr(omitted));
  EXPECT_EQ(FStored.Openings, 1) << "the process's own memory is enough within the hour";
  Restart();
  EXPECT_THAT(NewReport(), HasSubstr(omitted));
  EXPECT_THAT(NewReport(), HasSubstr(omitted));
  EXPECT_EQ(FStored.Openings, 2);
  FClock.Advance(std::chrono::minutes(2));
  EXPECT_THAT(NewReport(), Not(HasSubstr(omitted)));
  Settings().DebugMode = true;
  EXPECT_THAT(NewReport(), Not(HasSubstr(omitted)));
}

TEST_F(ExceptionReportTest, DoesNotLetABrokenOrAFutureTimeSilenceTheThreadReport) {
  const std::string omitted = "Complete Thread Report Omitted\n";
  for (const char* stored : {"46348.25", "no number", "", "1e400"}) {
    FStored.Values["Main/LastDetailedThreadReportLoggedAtUTC"] = stored;
    Restart();
    EXPECT_THAT(NewReport(), Not(HasSubstr(omitted))) << stored;
  }
  FStored.Fails = true;
  Restart();
  EXPECT_THAT(NewReport(), Not(HasSubstr(omitted)));
  EXPECT_THAT(NewReport(), HasSubstr(omitted));
}

TEST(DetailIsDueTest, AfterMoreThanAnHour) {
  constexpr TDateTime kNow = 46347.25;
  EXPECT_TRUE(DetailIsDue(0, kNow));
  EXPECT_TRUE(DetailIsDue(kNow - 1.0 / 24 - kSecond, kNow));
  EXPECT_FALSE(DetailIsDue(kNow - 0.041666666666666664, kNow));
  EXPECT_FALSE(DetailIsDue(kNow + kSecond / 2, kNow));
  EXPECT_TRUE(DetailIsDue(kNow + kMinute, kNow));
}

TEST_F(ExceptionReportTest, RenamesALogAboveTheLimit) {
  const std::string log = FFolder.Path("logs/guardian_Exceptions.log");
  const std::string previous = FFolder.Path("logs/guardian_Exceptions.prev.log");
  for (const bool debugMode : {false, true}) {
    Settings().DebugMode = debugMode;
    const std::uintmax_t limit = debugMode ? 1'048'576 : 104'857'600;
    std::filesystem::remove(previous);
    FFolder.Write("logs/guardian_Exceptions.log", "old");
    std::filesystem::resize_file(log, limit);
    WriteExceptionReport(OurOwn(), "");
    EXPECT_FALSE(std::filesystem::exists(previous));
    FFolder.Write("logs/guardian_Exceptions.prev.log", "older");
    std::filesystem::resize_file(log, limit + 1);
    WriteExceptionReport(OurOwn(), "");
    EXPECT_EQ(std::filesystem::file_size(previous), limit + 1);
    EXPECT_EQ(CountOf(Log(), "Application Error At"), 1U);
  }
}

TEST_F(ExceptionReportTest, NamesTheLogAfterTheExecutable) {
  Settings().OwnExecutablePath = "/opt/VellumarkGuardian";
  Settings().LogDirectory.Set("/var/log/v/");
  EXPECT_EQ(ExceptionsLogName(), "/var/log/v/VellumarkGuardian_Exceptions.log");
  Settings().LogDirectory.Set("");
  EXPECT_EQ(ExceptionsLogName(),
            JoinPath(*Settings().TempDirectory.Get(), "VellumarkGuardian_Exceptions.log"));
}

TEST_F(ExceptionReportTest, DoesNoHarmWhereItCannotWrite) {
  const int descriptors = OpenDescriptors();
  std::filesystem::create_symlink("/dev/full", FFolder.Path("logs/guardian_Exceptions.log"));
  WriteExceptionReport(OurOwn(), "full disk");
  Settings().LogDirectory.Set(FFolder.Path("missing"));
  WriteExceptionReport(OurOwn(), "no folder");
  Settings().LogDirectory.Set("/proc/self");
  HandleException(OurOwn(), TLogToFiles::Yes, "read-only");
  WriteExceptionReport(OurOwn(), "target", [](std::string_view) { throw KZException("refused"); });
  EXPECT_EQ(ExceptionReportsInProgress(), 0);
  EXPECT_EQ(OpenDescriptors(), descriptors);
  Settings().LogDirectory.Set(FFolder.Path());
  HandleException(OurOwn(), TLogToFiles::Yes, "afterwards");
  EXPECT_TRUE(FFolder.Has("guardian_Exceptions.log"));
}

TEST_F(ExceptionReportTest, WritesOfAHarmlessOneItsMessageOnly) {
  WriteExceptionReport(Caught([] { throw EIdConnClosedGracefully("peer gone"); }), "where");
  EXPECT_EQ(Log(), "peer gone\n");
}

TEST_F(ExceptionReportTest, HandlesExceptionsAsTheOuterHandler) {
  const TErrorLogInFolder errorLog;
  const std::exception_ptr soft = Caught([] { throw SoftException("expected"); });
  HandleException(soft, TLogToFiles::Yes, "in a thread");
  EXPECT_EQ(errorLog.Text(), "expected\nin a thread\n");
  KZCP::SetMessageBoxFlag(true);
  HandleException(soft, TLogToFiles::Yes, "shown");
  KZCP::SetMessageBoxFlag(false);
  EXPECT_THAT(errorLog.Text(), HasSubstr("\nApplication Error: expected\nshown\n"));
  EXPECT_EQ(Log(), "");

  HandleException(OurOwn(), TLogToFiles::No, "not to files");
  EXPECT_EQ(CountOf(errorLog.Text(), "Application Error At"), 0U);
  EXPECT_EQ(CountOf(Log(), "Where: not to files, CP: Testing"), 1U);
  HandleException(OurOwn(), TLogToFiles::Yes, "to files");
  EXPECT_EQ(CountOf(errorLog.Text(), "Where: to files, CP: Testing"), 1U);
  EXPECT_EQ(CountOf(Log(), "Where: to files, CP: Testing"), 1U);
}

TEST_F(ExceptionReportTest, WritesToTheErrorLogFirstWhileTheProtocolIsLogged) {
  const TErrorLogInFolder errorLog;
  ProtocolLogSettings().Enabled = true;
  WriteExceptionReport(OurOwn(), "");
  EXPECT_EQ(errorLog.Text(), "");
  WriteExceptionReport(OurOwn(), "somewhere");
  ProtocolLogSettings().Enabled = false;
  EXPECT_EQ(CountOf(errorLog.Text(), "Where: somewhere, "), 1U);
  EXPECT_EQ(CountOf(Log(), "Where: somewhere, "), 1U);
}

TEST_F(ExceptionReportTest, DropsWhatReachesTheOuterHandlerMeanwhile) {
  int inProgress = 0;
  FOnStore = [&] {
    inProgress = ExceptionReportsInProgress();
    InThread([] { HandleException(OurOwn(), TLogToFiles::Yes, "second"); });
  };
  HandleException(OurOwn(), TLogToFiles::Yes, "first");
  EXPECT_GT(inProgress, 0);
  EXPECT_EQ(ExceptionReportsInProgress(), 0);
  EXPECT_THAT(Log(), HasSubstr("Where: first"));
  EXPECT_THAT(Log(), Not(HasSubstr("Where: second")));
  FOnStore = {};
  HandleException(OurOwn(), TLogToFiles::Yes, "third");
  EXPECT_THAT(Log(), HasSubstr("Where: third"));
}

TEST_F(ExceptionReportTest, NamesTheFunctionThatRaised) {
  std::string text;
  GetExceptionReport(text, OurOwn(), "", TThreadReportPart::Without);
  EXPECT_THAT(text, HasSubstr("guardian::RaiseOurOwn("));
  EXPECT_THAT(text, HasSubstr(" (guardian.exe+0x"));
  const std::exception_ptr foreign = Caught([] { RaiseForeign(1); });
  // What is thrown and caught on the way must not hide it.
  static_cast<void>(Caught([] { throw std::runtime_error("other"); }));
  GetExceptionReport(text, foreign, "", TThreadReportPart::Without);
  EXPECT_THAT(text, HasSubstr("Exception std::out_of_range: foreign\n"));
  EXPECT_THAT(text, HasSubstr("guardian::RaiseForeign("));
  EXPECT_THAT(text, Not(HasSubstr("(Where the exception was caught.)")));
  GetExceptionReport(text, Caught([] { throw 42; }), "", TThreadReportPart::Without);
  EXPECT_THAT(text, HasSubstr("Exception int: unknown exception\n"));
  EXPECT_THAT(text, HasSubstr("TestBody"));
  // Raised elsewhere: there is nothing but the place of the catch.
  std::exception_ptr carried;
  InThread([&] { carried = Caught([] { RaiseForeign(1); }); });
  GetExceptionReport(text, carried, "", TThreadReportPart::Without);
  EXPECT_THAT(text, HasSubstr("(Where the exception was caught.)\n"));
  EXPECT_THAT(text, HasSubstr("TestBody"));
}

TEST_F(ExceptionReportTest, ReportsWhatEscapesAThread) {
  InThread([] { RaiseForeign(1); });
  EXPECT_THAT(Log(), HasSubstr("Where: Thread Test, CP: "));
  EXPECT_THAT(Log(), HasSubstr("guardian::RaiseForeign("));
}

TEST_F(ExceptionReportTest, KeepsReportsWholeThatThreadsWriteAtOnce) {
  constexpr int kThreads = 4;
  constexpr int kReports = 25;
  {
    std::vector<std::unique_ptr<TFunctionThread>> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.push_back(std::make_unique<TFunctionThread>("Reporter", [i] {
        for (int n = 0; n < kReports; ++n) {
          WriteExceptionReport(OurOwn(std::to_string(i)), std::to_string(i));
        }
      }));
      threads.back()->Start();
    }
  }
  // Each report ends before the next one begins, and has the where of its own message.
  const std::string log = Log();
  int reports = 0;
  int threadReports = 0;
  for (std::size_t at = 0; at < log.size(); ++reports) {
    const std::size_t next = std::min(log.find("Heading\n", at + 1), log.size());
    const std::string report = log.substr(at, next - at);
    const std::size_t message = report.find("Exception KZException: ") + 23;
    EXPECT_THAT(report, HasSubstr("Where: " + report.substr(message, 1) + ", CP: "));
    if (report.ends_with("\nComplete Thread Report Omitted\n") == false) {
      ++threadReports;
      EXPECT_THAT(report, HasSubstr("Thread Report\n"));
    }
    EXPECT_EQ(CountOf(report, "Application Error At"), 1U);
    at = next;
  }
  EXPECT_EQ(reports, kThreads * kReports);
  EXPECT_EQ(threadReports, 1);
}

TEST_F(ExceptionReportTest, LeavesMemoryAndDescriptorsAsTheyWere) {
  const auto report = [](int times) {
    for (int i = 0; i < times; ++i) {
      HandleException(Caught([] { RaiseForeign(1); }), TLogToFiles::Yes, "again and again");
    }
  };
  report(10);
  const int descriptors = OpenDescriptors();
  const std::size_t bytes = ::mallinfo2().uordblks;
  report(1000);
  EXPECT_EQ(OpenDescriptors(), descriptors);
  // Always 0 under the sanitizers, one of which looks for leaks itself.
  EXPECT_LE(::mallinfo2().uordblks, bytes + 4096);
  EXPECT_EQ(CountOf(Log(), "Application Error At"), 1010U);
}

}  // namespace
}  // namespace guardian
