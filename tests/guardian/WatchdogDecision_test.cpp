#include "guardian/WatchdogDecision.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace guardian {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr TDateTime kStart = 10'000;
constexpr TDateTime kWallStart = 46347.25;  // 21 November 2026, 06:00.

// "kind: text", as short as can be compared.
std::string Shown(const TStep& step) {
  const auto entry = [&](const char* kind) {
    return std::string(kind) + " " + std::to_string(step.Category) + "/" +
           std::to_string(step.Event) + ": " + step.Text;
  };
  switch (step.Kind) {
    case TStepKind::StatusLine:
      return "status: " + step.Text;
    case TStepKind::Log:
      return "log: " + step.Text;
    case TStepKind::WarningEntry:
      return entry("warning");
    case TStepKind::ErrorEntry:
      return entry("error");
    case TStepKind::SendCommand:
      return "send " + NameOf(step.Command);
    case TStepKind::StartDaemon:
      return "start";
    case TStepKind::StopDaemon:
      return "stop";
    case TStepKind::TerminateDaemon:
      return "terminate";
    case TStepKind::KillDaemon:
      return "kill";
  }
  return "?";
}

class WatchdogDecisionTest : public testing::Test {
 protected:
  WatchdogDecisionTest() {
    FSeen.MutexOK = FSeen.PipeOK = FSeen.ServiceOK = FSeen.MutexPathKnown = true;
    FSeen.Pid = "42";
    FState.LastPulseAt = kStart;
    FState.LastStatusLogAt = kStart;
  }

  // The steps of one round, seconds after the start, without the status line.
  std::vector<std::string> RoundAt(double seconds) {
    FSeen.Now = kStart + seconds * kSecond;
    FSeen.WallNow = kWallStart + seconds * kSecond;
    std::vector<std::string> shown;
    for (const TStep& step : DecideRound(FSeen, FState)) shown.push_back(Shown(step));
    EXPECT_TRUE(shown.front().starts_with("status: "));
    FStatusLine = shown.front();
    shown.erase(shown.begin());
    return shown;
  }

  // Only what acts upon the daemon.
  std::vector<std::string> ActionsAt(double seconds) {
    std::vector<std::string> steps = RoundAt(seconds);
    std::erase_if(steps, [](const std::string& step) {
      return step.starts_with("log") || step.starts_with("error") || step.starts_with("warning");
    });
    return steps;
  }

  TObservation FSeen;
  TWatchdogState FState;
  std::string FStatusLine;
};

TEST_F(WatchdogDecisionTest, AHealthyRoundOnlyShowsTheStatusAndLogsItOnceAMinute) {
  FSeen.Pulse = 7;
  FState.LastSeenPulse = 7;
  EXPECT_THAT(RoundAt(10), IsEmpty());
  EXPECT_EQ(
      FStatusLine,
      "status: Status at 2026-11-21 06:00:10: MutexOK=Y, PipeStatusOK=Y, ServiceOK=Y, PID=42");
  EXPECT_THAT(RoundAt(59.9), IsEmpty());
  EXPECT_THAT(RoundAt(60.1), ElementsAre("log: Status: Mutex=Y Service=Y Pipe=Y Pulse: 7"));
  EXPECT_THAT(RoundAt(70), IsEmpty());
}

TEST_F(WatchdogDecisionTest, AnyFailureLogsTheStatusAndOnlyMutexAndServiceKeepItRepeating) {
  FSeen.PipeOK = false;
  EXPECT_THAT(RoundAt(10), ElementsAre("log: Status: Mutex=Y Service=Y Pipe=N Pulse: 0",
                                       "log: Pipe failure counter = 1"));
  FSeen.PipeOK = true;
  EXPECT_THAT(RoundAt(20), IsEmpty());
  FSeen.MutexOK = false;
  RoundAt(30);
  EXPECT_EQ(FState.LastStatusLogAt, 0);
  FSeen.MutexOK = true;
  EXPECT_THAT(RoundAt(40), ElementsAre("log: Status: Mutex=Y Service=Y Pipe=Y Pulse: 0"));
}

TEST_F(WatchdogDecisionTest, AStillPulseMakesItAskAndNeverRestart) {
  FSeen.Pulse = 5;
  EXPECT_THAT(RoundAt(0), ElementsAre("log: Pulse change detected, FLastPulseAt now:"
                                      "2026-11-21 06:00:00"));
  FState.LastStatusLogAt = kStart + 1;  // Keeps the minute's line out of this test.
  EXPECT_THAT(RoundAt(71.9), IsEmpty());
  for (double seconds = 72.1; seconds < 3600; seconds += 10) {
    ASSERT_THAT(RoundAt(seconds),
                ElementsAre("log: Pulse change over 1.2 minutes ago, last pulse was at:"
                            "2026-11-21 06:00:00",
                            "send msgEnquireStatus"))
        << seconds;
  }
  EXPECT_EQ(FState.RestartAttempts, 0);
  FSeen.PipeOK = false;
  RoundAt(3600);
  FSeen.PipeOK = true;
  EXPECT_THAT(ActionsAt(3671.9), IsEmpty()) << "no pulse is expected while the pipe is down";
  EXPECT_THAT(ActionsAt(3672.1), ElementsAre("send msgEnquireStatus"));
}

TEST_F(WatchdogDecisionTest, ADeadDaemonIsStartedInEachRoundAndNothingElseIsCounted) {
  FSeen.MutexOK = FSeen.PipeOK = FSeen.ServiceOK = false;
  for (int round = 1; round <= 20; ++round) {
    EXPECT_THAT(RoundAt(10 * round),
                ElementsAre("log: Status: Mutex=N Service=N Pipe=N Pulse: 0",
                            "error 1/16: Service not running - need to start service.", "start"));
  }
  EXPECT_EQ(FState.MutexFailures, 0);
  EXPECT_EQ(FState.PipeFailures, 0);
  EXPECT_EQ(FState.RestartAttempts, 0);
}

TEST_F(WatchdogDecisionTest, ALostPipeEscalatesFromTheSixthRoundOn) {
  FSeen.PipeOK = false;
  for (int round = 1; round <= 5; ++round) EXPECT_THAT(ActionsAt(10 * round), IsEmpty()) << round;
  EXPECT_THAT(RoundAt(60), ElementsAre("log: Status: Mutex=Y Service=Y Pipe=N Pulse: 0",
                                       "log: Pipe failure counter = 6",
                                       "error 1/16: Pipe not OK - need to restart service.",
                                       "log: Need to restart service, attempt counter = 1",
                                       "error 3/1: Need to restart Vellumark_Service", "stop"));
  for (int round = 7; round <= 9; ++round) {
    EXPECT_THAT(ActionsAt(10 * round), ElementsAre("terminate")) << round;
  }
  for (int round = 10; round <= 30; ++round) {
    EXPECT_THAT(ActionsAt(10 * round), ElementsAre("kill")) << round;
  }
  EXPECT_EQ(FState.RestartAttempts, 25);
  FSeen.PipeOK = true;
  EXPECT_THAT(ActionsAt(310), IsEmpty());
  EXPECT_EQ(FState.RestartAttempts, 0);
  EXPECT_EQ(FState.PipeFailures, 0);
}

TEST_F(WatchdogDecisionTest, ALostMutexAsksForTheTimerAndThenEscalates) {
  FSeen.MutexOK = false;
  EXPECT_THAT(RoundAt(10),
              ElementsAre("log: Status: Mutex=N Service=Y Pipe=Y Pulse: 0", "send msgStartTimer",
                          "error 1/16: Mutex not OK - start timer command sent to service.",
                          "log: Mutex failure counter = 1"));
  for (int round = 2; round <= 5; ++round) {
    EXPECT_THAT(ActionsAt(10 * round), ElementsAre("send msgStartTimer"));
  }
  EXPECT_THAT(ActionsAt(60), ElementsAre("send msgStartTimer", "stop"));
  FSeen.PipeOK = false;
  EXPECT_THAT(ActionsAt(70), ElementsAre("send msgStartTimer", "terminate")) << "one step a round";
  FSeen.MutexOK = true;
  EXPECT_THAT(ActionsAt(80), IsEmpty());
  EXPECT_EQ(FState.PipeFailures, 2);
  EXPECT_EQ(FState.MutexFailures, 0);
}

TEST_F(WatchdogDecisionTest, CountsNothingWithoutAMutexPath) {
  FSeen.MutexPathKnown = false;
  FSeen.MutexOK = FSeen.PipeOK = false;
  for (int round = 1; round <= 100; ++round) EXPECT_THAT(ActionsAt(10 * round), IsEmpty());
  FSeen.ServiceOK = false;
  EXPECT_THAT(ActionsAt(1010), ElementsAre("start"));
}

TEST(FreshProcessCheckTest, IsSkippedOnlyWhenAllWasWell) {
  EXPECT_FALSE(NeedsFreshProcessCheck(true, true, true));
  EXPECT_TRUE(NeedsFreshProcessCheck(false, true, true));
  EXPECT_TRUE(NeedsFreshProcessCheck(true, false, true));
  EXPECT_TRUE(NeedsFreshProcessCheck(true, true, false));
}

bool IsRestartStep(const TStep& step) {
  return step.Kind == TStepKind::StopDaemon || step.Kind == TStepKind::TerminateDaemon ||
         step.Kind == TStepKind::KillDaemon;
}

// Many hours of rounds under faults that come and go at random, with the clock jumping now and
// then: what must always hold is checked after each round.
TEST(WatchdogLifeTest, KeepsItsInvariantsUnderRandomFaults) {
  for (unsigned seed = 1; seed <= 50; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto oneIn = [&](unsigned n) { return random() % n == 0; };
    TObservation seen;
    seen.MutexOK = seen.PipeOK = seen.ServiceOK = seen.MutexPathKnown = true;
    TWatchdogState state;
    seen.Now = kStart;
    seen.WallNow = kWallStart;
    for (int round = 0; round < 360; ++round) {
      seen.Now += (oneIn(50) ? 3600 : 10) * kSecond;
      seen.WallNow += (oneIn(50) ? -86'400 : 10) * kSecond;
      if (oneIn(8)) seen.MutexOK = !seen.MutexOK;
      if (oneIn(8)) seen.PipeOK = !seen.PipeOK;
      if (oneIn(15)) seen.ServiceOK = !seen.ServiceOK;
      if (oneIn(40)) seen.MutexPathKnown = !seen.MutexPathKnown;
      if (oneIn(2)) ++seen.Pulse;

      const TWatchdogState before = state;
      const std::vector<TStep> steps = DecideRound(seen, state);
      const auto restarts = std::count_if(steps.begin(), steps.end(), IsRestartStep);
      const auto starts = std::count_if(steps.begin(), steps.end(), [](const TStep& step) {
        return step.Kind == TStepKind::StartDaemon;
      });
      const bool counts = seen.ServiceOK && seen.MutexPathKnown;
      const bool mutexDue = counts && !seen.MutexOK && before.MutexFailures + 1 >= 6;
      const bool pipeDue = counts && !seen.PipeOK && before.PipeFailures + 1 >= 6;

      ASSERT_EQ(starts, seen.ServiceOK ? 0 : 1);
      ASSERT_EQ(restarts, mutexDue || pipeDue ? 1 : 0) << "a restart has its cause";
      ASSERT_LE(starts + restarts, 1);
      ASSERT_EQ(state.RestartAttempts, restarts == 1 ? before.RestartAttempts + 1 : 0);
      if (restarts == 1) {
        const TStepKind expected = state.RestartAttempts == 1   ? TStepKind::StopDaemon
                                   : state.RestartAttempts <= 4 ? TStepKind::TerminateDaemon
                                                                : TStepKind::KillDaemon;
        ASSERT_EQ(steps.back().Kind, expected);
      }
      ASSERT_EQ(state.MutexFailures, seen.MutexOK ? 0 : before.MutexFailures + (counts ? 1 : 0));
      ASSERT_EQ(state.PipeFailures, seen.PipeOK ? 0 : before.PipeFailures + (counts ? 1 : 0));
    }
  }
}

}  // namespace
}  // namespace guardian
