#include <dlfcn.h>
#include <pthread.h>

#include <cstdlib>
#include <new>

#include "common/AtEnd.h"
#include "common/DiagnosticMessage.h"
#include "config/KZSqlIniFiles.h"
#include "diagnostics/exception_report.h"
#include "guardian/DaemonLookups.h"
#include "guardian/FakeSurroundings.h"
#include "guardian/GuardianMain.h"
#include "guardian/Units.h"
#include "ipc/KZCustomApplication.h"
#include "ipc/KZUnixPipes.h"
#include "webstatus/RawClient.h"
#include "webstatus/WebStatusServer.h"

namespace guardian {
namespace {

// So many allocations of the process until one fails; none from 0 on.
std::atomic<int> allocationsUntilFailure = 0;

// So many threads until one cannot be made.
std::atomic<int> threadsUntilFailure = 0;

bool HasFailed() { return allocationsUntilFailure <= 0; }

// The n-th allocation of something that the Guardian does fails, for each n, or
// for every so many unless FAILING_ALLOCATIONS is set. What is done then may
// fail, but not end the process, wait for ever or leave anything behind, and it
// works the next time.
class GuardianMainTest : public testing::Test {
 protected:
  ~GuardianMainTest() override { std::cout << FTried << " failing allocations tried\n"; }

  void FailEach(int every, const std::function<void()>& act, const std::function<void()>& check) {
    if (std::getenv("FAILING_ALLOCATIONS") != nullptr) every = 1;
    // What is made once is made here.
    HandleException(FError, TLogToFiles::Yes, "first");
    check();
    const auto descriptors = OpenDescriptors().size();
    const auto threads = CountThreads("");
    bool failed = true;
    for (int number = 1; failed && !HasFailure(); number += every) {
      SCOPED_TRACE(number);
      allocationsUntilFailure = number;
      try {
        act();
      } catch (const std::exception&) {
        EXPECT_TRUE(HasFailed()) << CurrentExceptionMessage();
      }
      failed = allocationsUntilFailure.exchange(0) <= 0;
      check();
      EXPECT_TRUE(Eventually(
          [&] { return OpenDescriptors().size() <= descriptors && CountThreads("") <= threads; }));
      if (failed) ++FTried;
    }
  }

  const std::exception_ptr FError =
      std::make_exception_ptr(KZException("on purpose, and too long for a text without memory"));
  const TSettingsBackup FSettings{};
  const TTempFolder FFolder;
  const bool FSet = (Settings().LogDirectory.Set(FFolder.Path()), true);
  int FTried = 0;
};

class FailingAllocationsTest : public GuardianMainTest {
 protected:
  ~FailingAllocationsTest() override { FService.Stop(); }

  TKZCustomApplication FApplication;
  TUnits FUnits;
  TFakeSurroundings FFakes;
  std::vector<std::string> FRun;
  TGuardianService FService{FFakes.Make([this](const std::string& command, int) {
    FRun.push_back(command);
    return TShellOutcome{"root 42 VellumarkCL\n", {}};
  })};
};

TEST_F(FailingAllocationsTest, ARound) {
  FService.Start();
  FService.Pause();
  FFakes.Scheduler->MutexOK = false;  // So that each round looks for the process.
  const auto tick = [&] {
    FFakes.Clock.Advance(std::chrono::seconds(10));
    FService.Tick();
  };
  FailEach(1, tick, [&] {
    tick();
    FRun.clear();
    tick();
    EXPECT_THAT(FRun, testing::ElementsAre(testing::StartsWith("ps -ef ")));
  });
  // However many lines it has, an answer of the daemon takes no memory.
  allocationsUntilFailure = 1;
  EXPECT_NO_THROW((void)ParseDaemonPaths("\n\n"));
  allocationsUntilFailure = 0;
}

TEST_F(FailingAllocationsTest, EachPage) {
  FService.Start();
  FService.Pause();
  TWebStatusServer server({.Guardian = &FService, .TerminateGuardian = [] {}, .Shell = {}});
  server.StartServer();
  for (const std::string page : {"", "status.php", "status.json", "metrics", "threadreport.php",
                                 "logfiles.php", "overview.html", "startdaemon.php"}) {
    SCOPED_TRACE(page);
    const auto get = [&] { return Page(page, server.Port()); };
    FailEach(
        5, [&] { (void)get(); }, [&] { EXPECT_NE(get(), ""); });
  }
  EXPECT_TRUE(server.StopServer());
}

TEST_F(FailingAllocationsTest, APipeMessageThereAndBack) {
  SetPipeDirectory(FFolder.Path());
  TPipeServer server;
  server.OnPipeMessage = [&](auto&, std::int64_t pipe, std::string_view payload) {
    server.Write(pipe, payload);
  };
  server.SetActive(true);
  TPipeClient client;
  int answers = 0;
  client.OnPipeMessage = [&](auto&, std::int64_t, std::string_view) { ++answers; };
  const auto answered = [&](const std::function<bool()>& enough) {
    const int before = answers;
    const bool connected = client.Connect(0) && client.Write(std::string(10'000, 'x'));
    return connected && Eventually([&] { return answers > before || enough(); });
  };
  FailEach(
      13, [&] { (void)answered(HasFailed); },
      [&] {
        EXPECT_TRUE(Eventually([&] { return answered([&] { return !client.Connected(); }); }));
        client.Disconnect(TPipeClient::TWait::Yes);
      });
}

TEST_F(FailingAllocationsTest, AnExceptionReport) {
  int reports = 0;
  FailEach(
      1, [&] { HandleException(FError, TLogToFiles::Yes, "failing"); },
      [&] {
        const std::string where = "Where: later " + std::to_string(++reports);
        HandleException(FError, TLogToFiles::Yes, where.substr(7));
        EXPECT_NE(FFolder.Read("_Exceptions.log").find(where), std::string::npos);
        EXPECT_EQ(ExceptionReportsInProgress(), 0);
      });
  // A message for which there is no memory begins all the same.
  testing::internal::CaptureStderr();
  for (int number = 1; number <= 3; ++number) {
    allocationsUntilFailure = number;
    EXPECT_FALSE(Guarded("where", SystemClock(), [&] { std::rethrow_exception(FError); }));
    allocationsUntilFailure = 0;
  }
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::StartsWith("where"));
}

TEST_F(FailingAllocationsTest, AStoreWriteAndARepair) {
  const std::string file = FFolder.Path("x.cfg");
  TKZSQLIniFile store(file);
  int value = 0;
  bool stored = false;
  const auto check = [&] {
    const std::string kept = TKZSQLIniFile(file).ReadString("s", "k", "none");
    EXPECT_TRUE(!stored || kept == std::to_string(value)) << kept;
    EXPECT_TRUE(store.TryWriteString("s", "k", std::to_string(++value)));
  };
  const auto write = [&] {
    stored = false;
    stored = store.TryWriteString("s", "k", std::to_string(++value));
  };
  FailEach(1, write, check);
  const auto writeToGarbage = [&] {
    store.CloseDatabase();
    FFolder.Write("x.cfg", "this is no store any more");
    write();
  };
  FailEach(31, writeToGarbage, check);
}

TEST_F(FailingAllocationsTest, AStartThatIsTriedAgain) {
  std::optional<TGuardianService> service;
  const auto make = [&] {
    service.emplace(FFakes.Make([](auto&, int) { return TShellOutcome{}; }));
  };
  const auto check = [&] {
    if (!service) make();
    service->StartTimer();
    EXPECT_TRUE(Eventually([&] {
      FFakes.Clock.Advance(std::chrono::seconds(1));
      return service->Reading().Rounds > 0;
    }));
    service.reset();
  };
  const auto start = [&] {
    make();
    service->Start();
  };
  FailEach(1, start, check);
}

// What could not start starts later, unless nothing could: then the status says so.
TEST_F(GuardianMainTest, RunsOrFailsAndEnds) {
  if (std::getenv("FAILING_ALLOCATIONS") == nullptr) GTEST_SKIP() << "scripts/failing-calls";
  const auto live = [] {
    TFakeClock clock;
    std::atomic<bool> ended = false;
    const TCrew ending(1, [&](int) {
      while (!ended) {
        (void)ThrownMessage([] { (void)Page("terminateguardian.php"); });
        if (HasFailed()) clock.Advance(std::chrono::seconds(10));
        SystemClock().Sleep(std::chrono::milliseconds(20));
      }
    });
    const TAtEnd end([&] { ended = true; });
    return GuardianMain(clock);
  };
  FailEach(
      11, [&] { EXPECT_TRUE(live() == kExitOk || HasFailed()); },
      [&] { EXPECT_EQ(live(), kExitOk); });
}

// With an empty TMPDIR, a setting that it does not know, a daemon that is not there, and a report
// before that one's folders are known. A page that outlived the service would end the process.
TEST(GuardianMainSurroundingsTest, RunsInOddSurroundingsAndLeavesNoPageAndNoFileBehind) {
  const TSettingsBackup settings;
  const TTempFolder folder;
  ::setenv("TMPDIR", "", 1);
  ::setenv("VELLUMARK_GUARDIAN_DEBUG", "yes", 1);
  const char* const program = "VellumarkGuardian";
  InitSettings(1, &program);
  ::unsetenv("TMPDIR");
  EXPECT_EQ(LogFolder(), "/tmp");
  Settings().TempDirectory.Set(folder.Path());
  const TCrew ending(1, [&](int) {
    EXPECT_TRUE(Eventually([&] { return !Page("status.php").empty(); }));
    HandleException(std::make_exception_ptr(KZException("early")), TLogToFiles::Yes, "early");
    EXPECT_NE(Page("terminateguardian.php"), "");
  });
  TFakeClock clock;
  testing::internal::CaptureStdout();
  EXPECT_EQ(GuardianMain(clock), 0);
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::StartsWith("VELLUMARK_GUARDIAN_DEBUG is neither 0 nor 1: yes\n"));
  EXPECT_EQ(Page("status.php"), "");
  EXPECT_NE(::unlink("/VellumarkGuardian.cfg"), 0);
}

// For want of each of its threads. What was tried again in vain would be tried for ever.
TEST(GuardianMainSurroundingsTest, StartsLaterWhatHadNoThreadOrFails) {
  const TSettingsBackup settings;
  const TTempFolder folder;
  Settings().TempDirectory.Set(folder.Path());
  int later = 0;
  for (int number = 1; threadsUntilFailure == 0; ++number) {
    SCOPED_TRACE(number);
    TFakeClock clock;
    std::atomic<bool> ended = false, watches = false;
    TCrew ending(1, [&](int) {
      EXPECT_TRUE(Eventually([&] {
        clock.Advance(std::chrono::seconds(10));
        const std::string status = Page("status.json");
        watches = !status.empty() && !Contains(status, "\"rounds\":0,");
        return ended || watches;
      }));
      (void)Page("terminateguardian.php");
    });
    threadsUntilFailure = number;
    const int status = GuardianMain(clock);
    ended = true;
    ending.Join();
    EXPECT_EQ(status, watches ? kExitOk : kExitFailed);
    later += watches && threadsUntilFailure == 0;
  }
  threadsUntilFailure = 0;
  EXPECT_EQ(later, 4) << "the timer's and the web server's three";
}

}  // namespace
}  // namespace guardian

// In the place of the library's.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*run)(void*), void* argument) noexcept {
  using guardian::threadsUntilFailure;
  if (threadsUntilFailure > 0 && --threadsUntilFailure == 0) return EAGAIN;
  static const auto next =
      reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
  return next(thread, attributes, run, argument);
}

void* operator new(std::size_t size) {
  using guardian::allocationsUntilFailure;
  if (allocationsUntilFailure > 0 && --allocationsUntilFailure == 0) throw std::bad_alloc();
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
