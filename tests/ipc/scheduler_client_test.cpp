#include "ipc/scheduler_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "common/Mutex.h"
#include "common/NamedMutex.h"
#include "ipc/MessageUnit.h"
#include "support/FakeClock.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

std::string Running(std::int64_t pulse, const std::string& first = "First") {
  TSyncCommRecord record{};
  record.SchedulerAction = static_cast<std::uint8_t>(TSchedulerActions::tsaSchedulerRunning);
  record.Pulse = pulse;
  record.FirstText.Set(first);
  record.SecondText.Set("Second");
  record.DetailText.Set("Detail");
  return RecordBytes(record);
}

// The client against a real server of this process. Checks run on a thread of their own, as the
// watchdog's do, while the main thread runs its queue.
class SchedulerClientTest : public testing::Test {
 protected:
  SchedulerClientTest() {
    StartMessages();
    StartPipes();
    SetPipeDirectory(FFolder.Path());
    FServer = std::make_unique<TPipeServer>();
    FServer->SetPipeName(kSchedulerMutexName);
    FServer->OnPipeMessage = [this](auto&, std::int64_t, std::string_view payload) {
      FCommands.emplace_back(payload);
    };
    FScheduler = std::make_unique<TSchedulerClient>(
        kSchedulerMutexName, [this](std::string_view line) { Log(line); }, FApplication.Stopping(),
        FClock);
  }
  ~SchedulerClientTest() override {
    FScheduler.reset();
    FServer.reset();
    StopPipes();
    StopMessages();
  }

  void Serve() {
    FServer->SetActive(true);
    ASSERT_TRUE(Eventually([&] { return FFolder.Has(kSchedulerMutexName); }));
  }

  TPipeCheck Check() {
    TPipeCheck check;
    TFunctionThread watchdog("watchdog", [&] { check = FScheduler->CheckSchedulerPipe(); });
    watchdog.Start();
    watchdog.Join();
    return check;
  }

  void Log(std::string_view line) {
    const TMutexLock lock(FLock);
    FLines.emplace_back(line);
  }
  std::vector<std::string> TakeLog() {
    const TMutexLock lock(FLock);
    return std::exchange(FLines, {});
  }

  TKZCustomApplication FApplication;
  const TTempFolder FFolder;
  TFakeClock FClock;
  TMutex FLock;
  std::vector<std::string> FLines;
  std::vector<std::string> FCommands;
  std::unique_ptr<TPipeServer> FServer;
  std::unique_ptr<TSchedulerClient> FScheduler;
};

TEST_F(SchedulerClientTest, TakesTheSchedulerForRunningOnlyWhileItsMutexIsHeld) {
  EXPECT_FALSE(FScheduler->IsSchedulerRunning());
  {
    const TNamedMutex held = TNamedMutex::Create(FFolder.Path(kSchedulerMutexName));
    EXPECT_TRUE(FScheduler->IsSchedulerRunning());
  }
  EXPECT_FALSE(FScheduler->IsSchedulerRunning());
  SetPipeDirectory(FFolder.Path("missing"));
  EXPECT_FALSE(FScheduler->IsSchedulerRunning());
}

TEST_F(SchedulerClientTest, LogsRecordsByTheirAction) {
  FScheduler->HandleMessage(Running(77, "<First>"));
  TSyncCommRecord status{};
  status.SchedulerAction = static_cast<std::uint8_t>(TSchedulerActions::tsaStatusUpdate);
  status.StatusText.Set("State");
  status.SecondText.Set("Second");
  status.Pulse = 5;
  TSyncCommRecord progress = status;
  progress.SchedulerAction = static_cast<std::uint8_t>(TSchedulerActions::tsaProgress);
  FScheduler->HandleMessage(RecordBytes(status) + RecordBytes(progress));
  EXPECT_THAT(
      TakeLog(),
      ElementsAre("Scheduler Msg: tsaSchedulerRunning &lt;First&gt; Second: Detail Pulse: 77",
                  "Scheduler Msg: tsaStatusUpdate State Second",
                  "Scheduler Msg: tsaProgress  Second: "));
  EXPECT_EQ(FScheduler->Pulse(), 77);
  FScheduler->HandleMessage(Running(1) + Running(2) + "x");
  EXPECT_THAT(TakeLog(), IsEmpty());
  EXPECT_EQ(FScheduler->Pulse(), 77);
}

TEST_F(SchedulerClientTest, ClosesThePipeAfterTenRecordsAndOpensItWhenTheyAreAMinuteOld) {
  Serve();
  FServer->OnPipeConnect = [this](auto&, std::int64_t pipe) {
    std::string records;
    for (int i = 1; i <= 12; ++i) records += Running(i);
    FServer->Write(pipe, records);
  };
  const TPipeCheck first = Check();
  EXPECT_TRUE(first.Ok && first.JustConnected);
  ASSERT_TRUE(Eventually([&] { return FScheduler->Pulse() == 10; }));
  EXPECT_THAT(TakeLog(), SizeIs(11)) << "the opening and ten records of twelve";

  const TPipeCheck second = Check();
  EXPECT_TRUE(second.Ok && !second.JustConnected);
  ASSERT_TRUE(Eventually([&] { return FLines.size() == 2; }));
  EXPECT_THAT(TakeLog(),
              ElementsAre("10 messages received, closing pipe.", "Scheduler Pipe Disconnected"));
  FClock.Advance(milliseconds(59'000));
  EXPECT_TRUE(Check().Ok);
  EXPECT_THAT(TakeLog(), IsEmpty());
  FClock.Advance(milliseconds(2'000));
  EXPECT_TRUE(Check().JustConnected);
}

TEST_F(SchedulerClientTest, AsksASilentDaemonAndGivesUpAfterTwoMinutes) {
  Serve();
  FServer->OnPipeConnect = [this](auto&, std::int64_t pipe) { FServer->Write(pipe, Running(1)); };
  ASSERT_TRUE(Check().JustConnected);
  ASSERT_TRUE(Eventually([&] { return FScheduler->Pulse() == 1; }));
  TakeLog();
  struct TCase {
    int AgeMs;
    bool Ok;
    bool Asked;
  };
  int age = 0;
  for (const TCase& c :
       {TCase{61'000, true, false}, TCase{65'900, true, false}, TCase{67'000, true, true},
        TCase{119'900, true, true}, TCase{121'000, false, true}}) {
    SCOPED_TRACE(c.AgeMs);
    FClock.SetWall(FClock.Now() - 1);  // A wall clock that is set back changes nothing.
    FClock.Advance(milliseconds(c.AgeMs - age));
    age = c.AgeMs;
    EXPECT_EQ(Check().Ok, c.Ok);
    EXPECT_EQ(TakeLog(), c.Asked ? std::vector<std::string>{"Sending command msgEnquireStatus"}
                                 : std::vector<std::string>{});
  }
  ASSERT_TRUE(Eventually([&] { return FCommands.size() == 3; }));
  EXPECT_TRUE(FCommands[0] == CommandRecord(TSyncCommMessages::msgEnquireStatus));
}

TEST_F(SchedulerClientTest, SaysThatACommandCannotBeSent) {
  bool sent = true;
  TFunctionThread watchdog(
      "watchdog", [&] { sent = FScheduler->SendCommand(TSyncCommMessages::msgStartTimer); });
  watchdog.Start();
  watchdog.Join();
  EXPECT_FALSE(sent);
  EXPECT_THAT(TakeLog(), ElementsAre("Sending command msgStartTimer", "Error connecting pipe",
                                     "Error sending command msgStartTimer"));
  EXPECT_FALSE(Check().Ok);
}

TEST_F(SchedulerClientTest, EndsWhileItWaitsForTheMainThreadOrForAConnection) {
  FApplication.Terminate();
  EXPECT_FALSE(Check().Ok);
}

}  // namespace
}  // namespace guardian
