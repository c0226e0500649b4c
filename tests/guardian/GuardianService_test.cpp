#include "guardian/GuardianService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "common/Event.h"
#include "common/Exceptions.h"
#include "common/Settings.h"
#include "guardian/FakeFileSystem.h"
#include "guardian/FakeShell.h"
#include "support/FakeClock.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kOwnPath = "/opt/guard/VellumarkGuardian";
constexpr const char* kDaemon = "/opt/guard/VellumarkCL";

class TFakeScheduler final : public TScheduler {
 public:
  explicit TFakeScheduler(TLog log) : FLog(std::move(log)) {}
  bool IsSchedulerRunning() override { return MutexOK; }
  TPipeCheck CheckSchedulerPipe() override { return {.Ok = PipeOK}; }
  bool SendCommand(TSyncCommMessages command) override {
    FLog("Sending command " + NameOf(command));
    Sent.push_back(command);
    return true;
  }
  std::int64_t Pulse() const noexcept override { return Now; }

  bool MutexOK = true;
  bool PipeOK = true;
  std::int64_t Now = 0;
  std::vector<TSyncCommMessages> Sent;

 private:
  const TLog FLog;
};

class GuardianServiceTest : public testing::Test {
 protected:
  GuardianServiceTest() {
    Settings().MutexDirectory.Set("");
    Settings().LogDirectory.Set("");
    FFiles.Files[kDaemon] = "";
    FService = std::make_unique<TGuardianService>(TGuardianSurroundings{
        .Shell =
            [this](const std::string& line, int timeoutSec) {
              TShellOutcome outcome = FShell.Run(line, timeoutSec);
              FCommandRun.Signal();
              return outcome;
            },
        .MakeScheduler =
            [this](TScheduler::TLog log) {
              auto scheduler = std::make_unique<TFakeScheduler>(std::move(log));
              FScheduler = scheduler.get();
              return scheduler;
            },
        .SystemLog = [](std::string_view, TSystemLogKind) {},
        .OwnPath = kOwnPath,
        .ConfDir = "/etc",
        .Files = &FFiles,
        .Clock = &FClock,
    });
  }

  void Handshake(const std::string& answer) {
    FShell.Answer(std::string(kDaemon) + " /PATHS", {answer, {}});
    FService->Start();
  }

  std::string DetailedLog() const { return *FService->Status().DetailedLog; }

  TFakeClock FClock;
  TFakeShell FShell;
  TFakeFileSystem FFiles;
  TKZEvent FCommandRun{"CommandRun"};
  TFakeScheduler* FScheduler = nullptr;
  std::unique_ptr<TGuardianService> FService;
};

TEST_F(GuardianServiceTest, TakesTheDirectoriesFromTheHandshake) {
  testing::internal::CaptureStdout();
  Handshake("TMP=/t\nMUTEX=/m\nLOGS=/l\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Vellumark Guardian (Silent Mode)\n"
            "Initial Output: TMP=/t\nMUTEX=/m\nLOGS=/l\n\n\n"
            "TMP=/t\nMUTEX=/m\nLOGS=/l\n");
  EXPECT_THAT(FShell.TakeCommands(), ElementsAre(std::string(kDaemon) + " /PATHS @600"));
  const TGuardianStatus status = FService->Status();
  EXPECT_TRUE(status.GotPaths);
  EXPECT_FALSE(status.GetPathsError);
  EXPECT_EQ(status.DaemonTempPath, "/t");
  EXPECT_EQ(status.MutexPath, "/m/vellumark$qrnd$schedulermutex");
  EXPECT_EQ(*Settings().LogDirectory.Get(), "/l");
  EXPECT_THAT(DetailedLog(), HasSubstr("<br>Guardian started, v1.50<br>"));
  EXPECT_THAT(*status.ActivityLog, HasSubstr("  INFO: Guardian Service Started"));
}

TEST_F(GuardianServiceTest, FallsBackToTheTempPathWithoutAMutexPath) {
  Handshake("TMP=/t\nMUTEX=\n");
  const TGuardianStatus status = FService->Status();
  EXPECT_FALSE(status.GotPaths);
  EXPECT_TRUE(status.GetPathsError);
  EXPECT_EQ(*status.InitialOutput,
            "TMP=/t\nMUTEX=\n\nWARNING: Mutex Path Not Received from VellumarkCL\n");
  EXPECT_EQ(*Settings().MutexDirectory.Get(), "/t");
}

TEST_F(GuardianServiceTest, WatchesADaemonThatCannotBeAsked) {
  FFiles.Files.clear();
  FFiles.Unreadable.insert("/etc/VellumarkCL.conf");
  FService->Start();
  EXPECT_THAT(DetailedLog(), HasSubstr("Exception starting guardian: open /etc/VellumarkCL.conf: "
                                       "Permission denied (errno 13)"));
  EXPECT_THAT(DetailedLog(), HasSubstr("Guardian started, v1.50"));

  FClock.Advance(milliseconds(10'000));
  ASSERT_TRUE(FCommandRun.WaitFor(milliseconds(10'000)));
  EXPECT_EQ(FShell.TakeCommands().front(), std::string(kPsWithColumns) + " @5");
}

TEST_F(GuardianServiceTest, TakesTheDaemonPathFromTheConfigurationOnlyWhenNoneIsBeside) {
  EXPECT_EQ(FService->GetDaemonPath(), kDaemon);
  FFiles.Files.clear();
  FFiles.Files["/etc/VellumarkCL.conf"] = "daemon=/one\ndaemon=/two words\n";
  testing::internal::CaptureStdout();
  EXPECT_EQ(FService->GetDaemonPath(), "/two words");
  FFiles.Files["/etc/VellumarkCL.conf"] = "daemon=/three\n";
  EXPECT_EQ(FService->GetDaemonPath(), "/two words");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Reading config file /etc/VellumarkCL.conf\n"
            "Daemon path from conf: /one\nDaemon path from conf: /two words\n");
}

TEST_F(GuardianServiceTest, NeverRunsItselfAsTheDaemon) {
  FFiles.Files.clear();
  FFiles.Files["/etc/VellumarkCL.conf"] = std::string("daemon=") + kOwnPath + "\n";
  FService->Start();
  EXPECT_THROW(FService->Tick(), KZException);
  EXPECT_THAT(FShell.TakeCommands(), ElementsAre(std::string(kPsWithColumns) + " @5"));
  EXPECT_THAT(DetailedLog(), HasSubstr("<br>Exception starting guardian: The daemon's path is the "
                                       "Guardian's own: /opt/guard/VellumarkGuardian<br>"));
}

TEST_F(GuardianServiceTest, StartsADeadDaemonAndLooksAgainAtOnce) {
  FShell.Answer(std::string(kDaemon) + " start", {"<started> & well", {}});
  FService->Tick();
  EXPECT_THAT(FShell.TakeCommands(), ElementsAre(std::string(kPsWithColumns) + " @5",
                                                 std::string(kDaemon) + " start @30"));
  EXPECT_THAT(DetailedLog(), HasSubstr("<br>Attempting to start daemon in /opt/guard/VellumarkCL"));
  EXPECT_THAT(DetailedLog(), HasSubstr("<br>Executed /opt/guard/VellumarkCL start, Result: "
                                       "&lt;started&gt; &amp; well"));
  EXPECT_THAT(*FService->Status().ActivityLog,
              HasSubstr("  ERROR: Service not running - need to start service."));
  EXPECT_THAT(*FService->Status().ActivityLog,
              HasSubstr("  INFO: Starting service/daemon in /opt/guard/VellumarkCL"));

  FShell.Answer(kPsWithColumns, {"root 5 VellumarkCL", {}});
  FService->Tick();
  EXPECT_THAT(FShell.TakeCommands(), ElementsAre(std::string(kPsWithColumns) + " @5"));
}

TEST_F(GuardianServiceTest, AHealthyDaemonCostsOneProcessListAMinute) {
  FShell.Answer(kPsWithColumns, {"root 5 VellumarkCL", {}});
  FService->Tick();
  FShell.TakeCommands();
  for (int tick = 0; tick < 5; ++tick) {
    FClock.Advance(milliseconds(10'000));
    FService->Tick();
  }
  EXPECT_THAT(FShell.TakeCommands(), testing::IsEmpty());
  FClock.Advance(milliseconds(10'001));
  FService->Tick();
  EXPECT_THAT(FShell.TakeCommands(), ElementsAre(std::string(kPsWithColumns) + " @5"));
  EXPECT_THAT(*FService->Status().StatusText, HasSubstr(": MutexOK=Y, PipeStatusOK=Y, "
                                                        "ServiceOK=Y, PID=5"));
  FScheduler->MutexOK = false;
  FService->Tick();
  EXPECT_THAT(FShell.TakeCommands(), ElementsAre(std::string(kPsWithColumns) + " @5"));
}

TEST_F(GuardianServiceTest, RestartsAHungDaemonStepByStep) {
  FShell.Answer(kPsWithColumns, {"root 5 VellumarkCL", {}});
  Handshake("MUTEX=/m\n");
  FScheduler->MutexOK = false;
  FShell.TakeCommands();
  std::vector<std::string> commands;
  for (int tick = 0; tick < 11; ++tick) {
    FService->Tick();
    for (const std::string& command : FShell.TakeCommands()) {
      if (!command.starts_with("ps ")) commands.push_back(command);
    }
  }
  EXPECT_THAT(commands, ElementsAre(std::string(kDaemon) + " stop @20", "kill 5 @20", "kill 5 @20",
                                    "kill 5 @20", "kill -9 5 @20", "kill -9 5 @20"));
  EXPECT_EQ(FScheduler->Sent.size(), 11U);
  EXPECT_THAT(DetailedLog(), HasSubstr("<br>Sending command msgStartTimer<br>"));
  EXPECT_THAT(*FService->Status().ActivityLog,
              HasSubstr("  ERROR: Need to restart Vellumark_Service<br>"));
}

TEST_F(GuardianServiceTest, KeepsItsLogsWithinTheirLimitForHoursOfFailures) {
  FScheduler->PipeOK = false;
  for (int tick = 0; tick < 2160; ++tick) {
    FClock.Advance(milliseconds(10'000));
    FService->Tick();
    FShell.TakeCommands();
    ASSERT_LE(DetailedLog().size(), kActivityLogLimit);
  }
  EXPECT_LE(FService->Status().ActivityLog->size(), kActivityLogLimit);
  EXPECT_GT(FService->Status().ActivityLog->size(), kActivityLogLimit - 1000);
}

TEST_F(GuardianServiceTest, SaysWhyACommandCouldNotBeRun) {
  FShell.Answer(std::string(kDaemon) + " start", {{}, "Error executing: no <shell>"});
  FService->Tick();
  EXPECT_THAT(DetailedLog(), HasSubstr("<br>Error executing: no &lt;shell&gt;<br>"));
}

TEST_F(GuardianServiceTest, CarriesARequestOutAfterOneSecondAndOnce) {
  FShell.Answer(kPsWithColumns, {"root 5 VellumarkCL", {}});
  FService->Tick();
  FService->RequestStart();
  FService->RequestStop();
  FService->RequestTerminate();
  FService->RequestKill();
  FShell.TakeCommands();
  FService->Tick();
  EXPECT_THAT(FShell.TakeCommands(),
              ElementsAre(std::string(kDaemon) + " start @30", std::string(kDaemon) + " stop @20",
                          "kill 5 @20", "kill -9 5 @20", std::string(kPsWithColumns) + " @5"));
  FService->Tick();
  EXPECT_THAT(FShell.TakeCommands(), testing::IsEmpty());
  Handshake("MUTEX=/m\n");
  FShell.TakeCommands();
  FCommandRun.Reset();
  FService->RequestStart();
  FClock.Advance(milliseconds(1'000));
  ASSERT_TRUE(FCommandRun.WaitFor(milliseconds(10'000)));
  EXPECT_EQ(FShell.TakeCommands().front(), std::string(kDaemon) + " start @30");
}

TEST_F(GuardianServiceTest, TicksOnlyBetweenContinueAndPause) {
  Handshake("MUTEX=/m\n");
  FService->Pause();
  FShell.TakeCommands();
  FClock.Advance(milliseconds(60'000));
  EXPECT_TRUE(FService->Continue());
  FCommandRun.Reset();
  EXPECT_THAT(FShell.TakeCommands(), testing::IsEmpty());
  FClock.Advance(milliseconds(10'000));
  EXPECT_TRUE(FCommandRun.WaitFor(milliseconds(10'000)));
  EXPECT_THAT(DetailedLog(), HasSubstr("<br>Guardian Service PAUSED<br>"));
  EXPECT_THAT(*FService->Status().ActivityLog, HasSubstr("  INFO: Guardian Service CONTINUED"));

  FService->Stop();
  EXPECT_TRUE(DetailedLog().ends_with("<br>Guardian stopped, v1.50"));
  FShell.TakeCommands();
  FService->RequestStart();
  FClock.Advance(milliseconds(60'000));
  EXPECT_THAT(FShell.TakeCommands(), testing::IsEmpty());
}

}  // namespace
}  // namespace guardian
