#include <cstdlib>

#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exception_report.h"
#include "support/TestSupport.h"

namespace guardian {

// Looked for by name in the reports.
[[gnu::noinline]] void WriteToNowhere() {
  volatile int* volatile nowhere = nullptr;
  *nowhere = 1;
}
[[gnu::noinline]] int UseUpTheStack(int depth) {
  if (depth == 10'000'000) return 0;
  volatile char room[4096] = {};
  // Not the last thing done, or it would become a loop.
  return UseUpTheStack(depth + 1) + room[0];
}

namespace {

// Never tells its message. Makes the limit that the process has by then short, if it has one.
struct EHanging : std::exception {
  const char* what() const noexcept override {
    if (::alarm(0) == 0) ::_exit(1);
    ::ualarm(1'000, 0);
    for (;;) ::pause();
  }
};

int Fail(const std::string& how) {
  if (how == "segv") WriteToNowhere();
  if (how == "overflow") return UseUpTheStack(0);
  if (how == "nowhere") {
    void (*volatile nowhere)() = nullptr;
    nowhere();
  }
  if (how == "uncaught") throw std::runtime_error("nobody catches this");
  if (how == "hanging") [](const auto& raise) noexcept { raise(); }([] { throw EHanging(); });
  const int signal = std::atoi(how.c_str());
  return signal % 2 == 0 ? ::raise(signal) : ::kill(::getpid(), signal);
}

const TRegisterChild kFail("fatal-signal", [](const std::vector<std::string>& arguments) {
  SetLimit(RLIMIT_CORE, 0);
  ::signal(SIGALRM, SIG_IGN);
  const char* const program = "diagnostics_test";
  InitSettings(1, &program);
  Settings().LogDirectory.Set(arguments[0]);
  BindMainThread();
  KZCP::Init();
  StartExceptionReports();
  KZCP::Checkpoint("Main");
  const int threads = std::atoi(arguments[1].c_str());
  if (threads == 0) return Fail(arguments[2]);
  std::atomic<int> ready = 0;
  TCrew(threads, [&](int) {
    KZCP::Checkpoint("About to fail");
    for (++ready; ready < threads;) continue;
    Fail(arguments[2]);
  }).Join();
  return 0;
});

class FatalSignalReportTest : public testing::Test {
 protected:
  void SetUp() override {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers report these signals themselves";
#endif
  }

  // The log of a process that fails so in as many threads, for 0 in the main thread.
  std::string LogOf(int threads, const std::string& how, int signal) {
    const TTempFolder folder;
    TProgram program(
        {"/proc/self/exe", "--child", "fatal-signal", folder.Path(), std::to_string(threads), how});
    EXPECT_EQ(program.Wait(), -signal) << how;
    return folder.Read("diagnostics_test_Exceptions.log");
  }
};

TEST_F(FatalSignalReportTest, NamesThePlaceOfTheFaultOnceWhenThreadsFailTogether) {
  const std::string log = LogOf(4, "segv", SIGSEGV);
  EXPECT_THAT(log, StartsWith("\nFatal Signal 11 (SIGSEGV) At 0x"));
  EXPECT_THAT(log,
              ContainsRegex(" on [0-9]{4}-[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-5][0-9] "
                            "UTC\nFault address: 0x0000000000000000, code 1\nExecutable: /"));
  EXPECT_THAT(log, HasSubstr(", CP: About to fail\nStack Trace\n-----------\n#0 0x"));
  EXPECT_THAT(log, ContainsRegex("\n#0 0x[0-9a-f]+ \\(diagnostics_test\\+0x[0-9a-f]+\\)\n"));
  EXPECT_THAT(log, ContainsRegex("\n#0 [^\n]*WriteToNowhere[^\n]+:[0-9]+\n#1 [^\n]*Fail"));
  EXPECT_EQ(CountOf(log, "Fatal Signal"), 1);
  // Before the places, before the names, at the end.
  EXPECT_EQ(CountOf(log, "\n-----------\n"), 3);
  EXPECT_THAT(log, EndsWith("\n-----------\n"));
}

TEST_F(FatalSignalReportTest, ReportsEachFatalSignalAndEndsByIt) {
  for (const int signal : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL}) {
    const std::string log = LogOf(signal % 2, std::to_string(signal), signal);
    EXPECT_THAT(log, HasSubstr("\nFatal Signal " + std::to_string(signal) + " (SIG" +
                               ::sigabbrev_np(signal) + ") At 0x"));
    EXPECT_THAT(log, HasSubstr("\nSent by process "));
  }
  EXPECT_THAT(LogOf(0, "overflow", SIGSEGV), HasSubstr("UseUpTheStack"));
  EXPECT_THAT(LogOf(1, "overflow", SIGSEGV), HasSubstr("UseUpTheStack"));
  EXPECT_THAT(LogOf(0, "nowhere", SIGSEGV),
              AllOf(HasSubstr("(SIGSEGV) At 0x0000000000000000 on "), HasSubstr("Fail")));
  const std::string log = LogOf(0, "uncaught", SIGABRT);
  EXPECT_THAT(log, HasSubstr("Exception std::runtime_error: nobody catches this\n"
                             "Where: Unhandled exception, CP: Main\n"));
  EXPECT_LT(log.find("Where: Unhandled"), log.find("Fatal Signal 6 (SIGABRT)"));
  LogOf(1, "hanging", SIGALRM);
}

}  // namespace
}  // namespace guardian
