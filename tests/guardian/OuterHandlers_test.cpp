#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>

#include "common/MainThread.h"
#include "common/Settings.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exception_report.h"
#include "diagnostics/logs/ExceptionsLog.h"
#include "guardian/FakeFileSystem.h"
#include "guardian/GuardianService.h"
#include "ipc/KZCustomApplication.h"
#include "ipc/KZMessages.h"
#include "ipc/KZUnixPipes.h"
#include "ipc/PipeListenThread.h"
#include "ipc/PipeSockets.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"
#include "support/TempFolder.h"
#include "webstatus/HttpClient.h"
#include "webstatus/HttpServer.h"

namespace guardian {

// Looked for by name in the reports.
[[gnu::noinline]] void FailOnPurpose() { throw std::runtime_error("on purpose"); }

namespace {

using testing::HasSubstr;

// What is thrown in a thread of the Guardian's leaves a report, and the thread goes on.
class OuterHandlersTest : public testing::Test {
 protected:
  OuterHandlersTest() {
    Settings().LogDirectory.Set(FFolder.Path());
    KZCP::Init();
    StartExceptionReports();
    StartMessages();
    SetMessageExceptionReporter([](const std::exception_ptr& error, const std::string& title) {
      HandleException(error, TLogToFiles::Yes, title);
    });
  }
  ~OuterHandlersTest() override {
    StopMessages();
    SetMessageExceptionReporter({});
    StopExceptionReports();
    KZCP::Fini();
    Settings().LogDirectory.Set("");
  }

  // Runs the main thread until there are that many reports with the where-text.
  bool Reported(const std::string& where, int times) const {
    return Eventually([&] {
      CheckSynchronize(std::chrono::milliseconds(5));
      const std::string log = Log();
      int found = 0;
      for (std::size_t at = log.find("Where: " + where + ", CP: "); at != std::string::npos;
           at = log.find("Where: " + where + ", CP: ", at + 1)) {
        ++found;
      }
      return found >= times;
    });
  }
  std::string Log() const {
    return FFolder.Read(ExceptionsLogName().substr(FFolder.Path().size() + 1));
  }
  void ExpectPlaceOfFault() const {
    EXPECT_THAT(Log(), HasSubstr("Exception std::runtime_error: on purpose\n"));
    EXPECT_THAT(Log(), HasSubstr("FailOnPurpose("));
  }

  const TTempFolder FFolder;
  TKZCustomApplication FApplication;
};

class TThrowingReceiver final : public TKZMessageReceiverClass {
 public:
  void WndMethod(TKZMessage& /*message*/) override {
    ++Calls;
    FailOnPurpose();
  }
  int Calls = 0;
};

class TThrowingScheduler final : public TScheduler {
 public:
  bool IsSchedulerRunning() override {
    FailOnPurpose();
    return false;
  }
  TPipeCheck CheckSchedulerPipe() override { return {}; }
  bool SendCommand(TSyncCommMessages /*command*/) override { return false; }
  std::int64_t Pulse() const noexcept override { return 0; }
};

TEST_F(OuterHandlersTest, ReportTheDeliveryOfMessages) {
  TThrowingReceiver receiver;
  PostMessage(receiver, 1, 0, 0, 0);
  PostMessage(receiver, 1, 0, 0, 0);
  EXPECT_TRUE(Reported("Processing KZMsg", 2));
  EXPECT_TRUE(CallInMainThread([] { FailOnPurpose(); }));
  EXPECT_TRUE(Reported("Processing KZMsg", 3));
  EXPECT_EQ(receiver.Calls, 2);
  ExpectPlaceOfFault();
}

TEST_F(OuterHandlersTest, ReportTheWatchdogTick) {
  TFakeClock clock;
  TFakeFileSystem files;
  TGuardianService service({
      .Shell = [](const std::string&, int) { return TShellOutcome(); },
      .MakeScheduler =
          [](const TScheduler::TLog&) { return std::make_unique<TThrowingScheduler>(); },
      .SystemLog = [](std::string_view, TSystemLogKind) {},
      .OwnPath = "/opt/guard/VellumarkGuardian",
      .ConfDir = "/etc",
      .Files = &files,
      .Clock = &clock,
  });
  service.Start();
  for (int tick = 1; tick <= 2; ++tick) {
    clock.Advance(std::chrono::seconds(10));
    EXPECT_TRUE(Reported("Watchdog tick", tick));
  }
  EXPECT_THAT(*service.Status().DetailedLog, HasSubstr("Exception in watchdog tick: on purpose"));
  service.Stop();
  ExpectPlaceOfFault();
}

TEST_F(OuterHandlersTest, ReportThePagesOfTheHttpServer) {
  THttpServerOptions options;
  options.OnError = [](const std::exception_ptr& error) {
    HandleException(error, TLogToFiles::Yes, "HTTP server");
  };
  THttpServer server(
      [](const THttpRequest& request) {
        if (request.Path == "/fault") FailOnPurpose();
        THttpResponse response;
        response.Body = "fine";
        return response;
      },
      options);
  server.Activate(0);
  const std::string address = "localhost:" + std::to_string(server.Port());
  EXPECT_ANY_THROW((void)HttpGet(address + "/fault", std::chrono::seconds(30)));
  EXPECT_TRUE(Reported("HTTP server", 1));
  EXPECT_EQ(HttpGet(address + "/", std::chrono::seconds(30)).Body, "fine");
  ExpectPlaceOfFault();
}

TEST_F(OuterHandlersTest, ReportTheThreadsOfThePipes) {
  StartPipes();
  {
    const std::string path = FFolder.Path("pipe");
    int accepted = 0;
    TPipeListenThread listener("test", path, [&](const TFileDescriptor&) {
      // Raised here, carried to the thread that listens.
      if (++accepted == 1) FailOnPurpose();
    });
    listener.AfterConstruction();
    const auto connect = [&] {
      return Eventually([&] { return static_cast<bool>(TryConnect(path)); });
    };
    ASSERT_TRUE(connect());
    EXPECT_TRUE(Reported("serve a client of " + path, 1));
    ASSERT_TRUE(connect());
    EXPECT_TRUE(Eventually([&] {
      CheckSynchronize(std::chrono::milliseconds(5));
      return accepted >= 2;
    }));
  }
  StopPipes();
  EXPECT_THAT(Log(), HasSubstr("Exception std::runtime_error: on purpose\n"));
}

}  // namespace
}  // namespace guardian
