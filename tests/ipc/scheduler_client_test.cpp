#include "ipc/scheduler_client.h"

#include "common/NamedMutex.h"
#include "ipc/MessageUnit.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

std::string Record(TSchedulerActions action, std::int64_t pulse) {
  TSyncCommRecord record{};
  record.SchedulerAction = static_cast<std::uint8_t>(action);
  record.Pulse = pulse;
  record.StatusText.Set("<state>");
  record.FirstText.Set("<first>");
  record.SecondText.Set("<second>");
  record.DetailText.Set("<detail>");
  return RecordBytes(record);
}

std::string Running(std::int64_t pulse) {
  return Record(TSchedulerActions::tsaSchedulerRunning, pulse);
}

// The client against a real server of this process. Checks run on a thread of their own, as the
// watchdog's do, while the main thread runs its queue.
class SchedulerClientTest : public TUnitsTest {
 protected:
  SchedulerClientTest() {
    FServer.SetPipeName(kSchedulerMutexName);
    FServer.OnPipeConnect = [this](auto&, std::int64_t pipe) {
      FGreeted = FServer.Write(pipe, FGreeting);
    };
    FServer.OnPipeMessage = [this](auto&, std::int64_t, std::string_view payload) {
      FCommands.emplace_back(payload);
    };
  }

  void Serve() {
    FServer.SetActive(true);
    ASSERT_TRUE(Eventually([&] { return FFolder.Has(kSchedulerMutexName); }));
  }

  TPipeCheck Check() {
    TPipeCheck check;
    InThread([&] { check = FScheduler.CheckSchedulerPipe(); });
    return check;
  }
  bool Send(TSyncCommMessages command) {
    bool sent = false;
    InThread([&] { sent = FScheduler.SendCommand(command); });
    return sent;
  }

  void Log(std::string_view line) {
    const TMutexLock lock(FLock);
    FLines.emplace_back(line);
  }
  std::vector<std::string> TakeLog() {
    const TMutexLock lock(FLock);
    return std::exchange(FLines, {});
  }

  TFakeClock FClock;
  TMutex FLock;
  std::vector<std::string> FLines;
  std::vector<std::string> FCommands;
  std::string FGreeting;
  bool FGreeted = false;
  TPipeServer FServer;
  TSchedulerClient FScheduler{kSchedulerMutexName, [this](std::string_view line) { Log(line); },
                              FApplication->Stopping(), FClock};
};

TEST_F(SchedulerClientTest, TakesTheSchedulerForRunningOnlyWhileItsMutexIsHeld) {
  EXPECT_FALSE(FScheduler.IsSchedulerRunning());
  {
    const TNamedMutex held = TNamedMutex::Create(FFolder.Path(kSchedulerMutexName));
    EXPECT_TRUE(FScheduler.IsSchedulerRunning());
  }
  EXPECT_FALSE(FScheduler.IsSchedulerRunning());

  const std::string missing = FFolder.Path("a<b");
  for (const auto& directory : {missing, missing, FFolder.Path(), missing}) {
    SetPipeDirectory(directory);
    EXPECT_FALSE(FScheduler.IsSchedulerRunning());
  }
  const std::string line = "Scheduler mutex cannot be looked at: " + FFolder.Path("a&lt;b/") +
                           kSchedulerMutexName + ".lock: No such file or directory (errno 2)";
  EXPECT_THAT(TakeLog(), ElementsAre(line, line)) << "once until it changes";
}

TEST_F(SchedulerClientTest, LogsRecordsByTheirActionAndCountsTheRest) {
  FScheduler.HandleMessage(Running(-77));
  FScheduler.HandleMessage(Record(TSchedulerActions::tsaStatusUpdate, 5) +
                           Record(TSchedulerActions::tsaProgress, 6));
  EXPECT_THAT(
      TakeLog(),
      ElementsAre("Scheduler Msg: tsaSchedulerRunning &lt;first&gt; &lt;second&gt;: &lt;detail&gt; "
                  "Pulse: -77",
                  "Scheduler Msg: tsaStatusUpdate &lt;state&gt; &lt;second&gt;",
                  "Scheduler Msg: tsaProgress &lt;first&gt; &lt;second&gt;: &lt;detail&gt;"));
  EXPECT_EQ(FScheduler.Pulse(), -77);
  FScheduler.HandleMessage(Running(1) + Running(2) + "x");
  EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(SchedulerClientTest, ClosesThePipeAfterTenRecordsAndOpensItWhenTheyAreAMinuteOld) {
  Serve();
  for (int i = 1; i <= 9; ++i) FGreeting += Running(i);
  const TPipeCheck first = Check();
  EXPECT_TRUE(first.Ok && first.JustConnected);
  ASSERT_TRUE(Eventually([&] { return FScheduler.Pulse() == 9; }));
  EXPECT_TRUE(Check().Ok);
  EXPECT_THAT(TakeLog(), SizeIs(10)) << "the opening and nine records: not yet closed";

  FServer.Write(FServer.Clients(0), Running(10) + Running(11) + Running(12));
  ASSERT_TRUE(Eventually([&] { return FScheduler.Pulse() == 10; }));
  EXPECT_THAT(TakeLog(), SizeIs(1)) << "the tenth";
  FClock.Advance(milliseconds(30'000));
  const TPipeCheck second = Check();
  EXPECT_TRUE(second.Ok && !second.JustConnected);
  ASSERT_TRUE(Eventually([&] { return FServer.ClientCount() == 0 && FLines.size() == 2; }));
  EXPECT_THAT(TakeLog(),
              ElementsAre("10 messages received, closing pipe.", "Scheduler Pipe Disconnected"));
  FClock.Advance(milliseconds(59'999));
  EXPECT_TRUE(Check().Ok);
  EXPECT_THAT(TakeLog(), IsEmpty()) << "its minute begins with the end of the connection";
  FClock.Advance(milliseconds(2));
  EXPECT_TRUE(Check().JustConnected);
  EXPECT_TRUE(Eventually([&] { return FScheduler.Pulse() == 9; })) << "heard again";
}

TEST_F(SchedulerClientTest, AsksASilentDaemonAndGivesUpAfterTwoMinutes) {
  Serve();
  FGreeting = Running(1);
  ASSERT_TRUE(Check().JustConnected);
  ASSERT_TRUE(Eventually([&] { return FScheduler.Pulse() == 1; }));
  TakeLog();
  int age = 0;
  for (const auto& [ageMs, ok, asked] :
       {std::tuple(59'999, true, false), std::tuple(60'001, true, false),
        std::tuple(65'999, true, false), std::tuple(66'001, true, true),
        std::tuple(119'999, true, true), std::tuple(120'001, false, true)}) {
    SCOPED_TRACE(ageMs);
    FClock.SetWall(FClock.Now() - 1);  // A wall clock that is set back changes nothing.
    FClock.Advance(milliseconds(ageMs - std::exchange(age, ageMs)));
    const TPipeCheck check = Check();
    EXPECT_TRUE(check.Ok == ok && !check.JustConnected);
    EXPECT_EQ(TakeLog(), asked ? std::vector<std::string>{"Sending command msgEnquireStatus"}
                               : std::vector<std::string>{});
  }
  ASSERT_TRUE(Eventually([&] { return FCommands.size() == 3; }));
  EXPECT_EQ(FCommands[0], '\26' + std::string(3208, '\0')) << "msgEnquireStatus";
}

TEST_F(SchedulerClientTest, ConnectsForACommandAndSaysWhenItCannotBeSent) {
  EXPECT_FALSE(Send(TSyncCommMessages::msgStartTimer));
  EXPECT_THAT(TakeLog(), ElementsAre("Sending command msgStartTimer", "Error connecting pipe",
                                     "Error sending command msgStartTimer"));
  EXPECT_FALSE(Check().Ok);
  Serve();
  TakeLog();
  EXPECT_TRUE(Send(TSyncCommMessages::msgStopAll));
  EXPECT_THAT(TakeLog(), ElementsAre("Sending command msgStopAll"));
  EXPECT_TRUE(Eventually([&] { return FCommands.size() == 1; }));
  FServer.SetActive(false);
  ASSERT_TRUE(Eventually([&] { return FLines.size() == 1; }));
  FClock.Advance(milliseconds(60'001));

  SetPipeDirectory(std::string(100, 'd'));
  TakeLog();
  EXPECT_FALSE(Check().Ok);
  EXPECT_THAT(TakeLog(), ElementsAre("Opening pipe connection to service",
                                     "Scheduler pipe cannot be opened: "
                                     "Length(FullPipeName)+1&gt;sizeof(FSockAddr.sun_path)"));
}

TEST_F(SchedulerClientTest, DropsAMessageOfMoreThanSixteenMebibytes) {
  Serve();
  FGreeting = Running(2);
  FGreeting.resize(5229 * kSyncCommRecordBytes);
  ASSERT_TRUE(Check().JustConnected);
  ASSERT_TRUE(Eventually([&] {
    if (FGreeted) FServer.Write(FServer.Clients(0), Running(3));
    return FScheduler.Pulse() != 0;
  }));
  EXPECT_EQ(FScheduler.Pulse(), 3);
}

TEST_F(SchedulerClientTest, MakesNoClientOnceTheApplicationEnds) {
  FApplication->Terminate();
  InThread([&] { EXPECT_FALSE(FScheduler.CheckSchedulerPipe().Ok); });
}

TEST(TSyncProtocolTest, KeepsTheOlderNamesAndNumbersWhatHasNone) {
  std::string names;
  for (const int i : {1, 2, 22}) names += NameOf(static_cast<TSchedulerActions>(i)) + " ";
  for (const int i : {10, 12, 23, 24, 26, 27})
    names += NameOf(static_cast<TSyncCommMessages>(i)) + " ";
  EXPECT_EQ(names,
            "tsaStopped tsaStopping ?22 msgUpdateProfileList msgManuallyRunningInfo "
            "msgPauseProfile msgResumeProfile msgSkipProfilePhase ?27 ");
  TShortText text{};
  text.Set(std::string(256, 'x'));
  EXPECT_EQ(text.Text(), std::string(255, 'x'));
  text.Set("ab");
  EXPECT_EQ(text.Text(), "ab");
  EXPECT_EQ(text.Characters[2], '\0') << "nothing of an older text is sent";
}

}  // namespace
}  // namespace guardian
