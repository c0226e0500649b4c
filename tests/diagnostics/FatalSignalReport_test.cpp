#include "diagnostics/exceptions/FatalSignalReport.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/MainThread.h"
#include "common/Settings.h"
#include "diagnostics/Diagnostics.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exception_report.h"
#include "support/ChildProcess.h"
#include "support/Program.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KZ_SANITIZED 1
#else
#define KZ_SANITIZED 0
#endif

namespace guardian {

// Looked for by name in the reports.
[[gnu::noinline]] void WriteToNowhere() {
  volatile int* volatile nowhere = nullptr;
  *nowhere = 1;
}
[[gnu::noinline]] int UseUpTheStack(int depth) {
  if (depth == 10'000'000) return 0;
  volatile char room[4096] = {};
  room[static_cast<std::size_t>(depth) % sizeof(room)] = 1;
  // Not the last thing done, or it would become a loop.
  return UseUpTheStack(depth + 1) + room[0];
}

namespace {

using testing::HasSubstr;
using testing::Not;

int Fail(const std::string& how) {
  if (how == "segv") WriteToNowhere();
  if (how == "overflow") return UseUpTheStack(0);
  if (how == "nowhere") {
    void (*volatile nowhere)() = nullptr;
    nowhere();
  }
  if (how == "abort") std::abort();
  if (how == "uncaught") throw std::runtime_error("nobody catches this");
  return ::raise(std::atoi(how.c_str()));
}

const TRegisterChild kFail("fatal-signal", [](const std::vector<std::string>& arguments) {
  const rlimit noCore{.rlim_cur = 0, .rlim_max = 0};
  ::setrlimit(RLIMIT_CORE, &noCore);
  const char* const program = "diagnostics_test";
  InitSettings(1, &program);
  Settings().LogDirectory.Set(arguments[0]);
  BindMainThread();
  KZCP::Init();
  StartExceptionReports();
  KZCP::Checkpoint("Main");
  if (arguments[1] == "main") return Fail(arguments[2]);
  InThread([&] {
    KZCP::Checkpoint("About to fail");
    Fail(arguments[2]);
  });
  return 0;
});

class FatalSignalReportTest : public testing::Test {
 protected:
  void SetUp() override {
    if (KZ_SANITIZED) GTEST_SKIP() << "the sanitizers report these signals themselves";
  }

  // Returns the exit code of a process that fails so: the signal as a negative number.
  int FailIn(const std::string& thread, const std::string& how) {
    TProgram program({"/proc/self/exe", "--child", "fatal-signal", FFolder.Path(), thread, how});
    return program.Wait();
  }
  std::string Log() const { return FFolder.Read("diagnostics_test_Exceptions.log"); }

  const TTempFolder FFolder;
};

TEST_F(FatalSignalReportTest, NamesThePlaceOfTheFault) {
  EXPECT_EQ(FailIn("thread", "segv"), -SIGSEGV);
  EXPECT_THAT(Log(), HasSubstr("\nFatal Signal 11 (SIGSEGV) At 0x"));
  EXPECT_THAT(Log(), HasSubstr("\nFault address: 0x0000000000000000, code 1\n"));
  EXPECT_THAT(Log(), HasSubstr(", CP: About to fail\n"));
  EXPECT_THAT(Log(),
              testing::ContainsRegex("\n#0 0x[0-9a-f]+ \\(diagnostics_test\\+0x[0-9a-f]+\\)\n"));
  EXPECT_THAT(Log(), HasSubstr("WriteToNowhere"));
  EXPECT_TRUE(Log().ends_with("\n-----------\n"));
}

TEST_F(FatalSignalReportTest, ReportsEachFatalSignalAndEndsByIt) {
  for (const int signal : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL}) {
    EXPECT_EQ(FailIn("main", std::to_string(signal)), -signal);
    EXPECT_THAT(Log(), HasSubstr("\nFatal Signal " + std::to_string(signal) + " ("));
  }
  EXPECT_EQ(FailIn("thread", "abort"), -SIGABRT);
}

TEST_F(FatalSignalReportTest, ReportsAStackThatOverflowed) {
  for (const char* thread : {"main", "thread"}) {
    EXPECT_EQ(FailIn(thread, "overflow"), -SIGSEGV);
    EXPECT_THAT(Log(), HasSubstr("UseUpTheStack")) << thread;
    std::filesystem::remove(FFolder.Path("diagnostics_test_Exceptions.log"));
  }
}

TEST_F(FatalSignalReportTest, NamesTheCallerOfAJumpToNowhere) {
  EXPECT_EQ(FailIn("main", "nowhere"), -SIGSEGV);
  EXPECT_THAT(Log(), HasSubstr("(SIGSEGV) At 0x0000000000000000 on "));
  EXPECT_THAT(Log(), HasSubstr("Fail"));
}

TEST_F(FatalSignalReportTest, ReportsAnUncaughtExceptionBeforeTheAbort) {
  EXPECT_EQ(FailIn("main", "uncaught"), -SIGABRT);
  const std::string log = Log();
  EXPECT_THAT(log, HasSubstr("Exception std::runtime_error: nobody catches this\n"
                             "Where: Unhandled exception, CP: Main\n"));
  EXPECT_LT(log.find("Where: Unhandled"), log.find("Fatal Signal 6 (SIGABRT)"));
}

TEST_F(FatalSignalReportTest, EndsByTheSignalWhereTheLogCannotBeWritten) {
  std::filesystem::create_directory(FFolder.Path("diagnostics_test_Exceptions.log"));
  EXPECT_EQ(FailIn("main", "segv"), -SIGSEGV);
}

TEST_F(FatalSignalReportTest, LeavesHandlersOfOthersAlone) {
  struct sigaction foreign {};
  foreign.sa_handler = [](int) {};
  struct sigaction before {};
  ::sigaction(SIGFPE, &foreign, &before);
  InstallFatalSignalReports();
  struct sigaction installed {};
  ::sigaction(SIGFPE, nullptr, &installed);
  EXPECT_EQ(installed.sa_handler, foreign.sa_handler);
  ::sigaction(SIGILL, nullptr, &installed);
  EXPECT_NE(installed.sa_handler, SIG_DFL);
  RemoveFatalSignalReports();
  ::sigaction(SIGILL, nullptr, &installed);
  EXPECT_EQ(installed.sa_handler, SIG_DFL);
  ::sigaction(SIGFPE, &before, nullptr);
}

}  // namespace
}  // namespace guardian
