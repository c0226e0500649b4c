#include "guardian/WatchdogDecision.h"

#include <random>

#include "support/TestSupport.h"

namespace guardian {
namespace {

using TSteps = std::vector<std::string>;

constexpr TDateTime kStart = 10'000;
constexpr TDateTime kWallStart = 46347.25;  // 21 November 2026, 06:00.

std::string Shown(const TStep& step) {
  constexpr const char* kKinds[] = {"status", "log",  "warning",   "error", "send",
                                    "start",  "stop", "terminate", "kill"};
  std::string text = kKinds[static_cast<std::size_t>(step.Kind)];
  if (step.Category != 0) {
    text += " " + std::to_string(step.Category) + "/" + std::to_string(step.Event);
  }
  if (step.Kind == TStepKind::SendCommand) text += " " + NameOf(step.Command);
  return step.Text.empty() ? text : text + ": " + step.Text;
}

class WatchdogDecisionTest : public testing::Test {
 protected:
  WatchdogDecisionTest() {
    FSeen.MutexOK = FSeen.PipeOK = FSeen.ServiceOK = FSeen.MutexPathKnown = true;
    FSeen.Pid = "42";
    FState.LastPulseAt = FState.LastStatusLogAt = kStart;
  }

  // The steps of one round, seconds after the start, without the status line.
  TSteps RoundAt(double seconds) {
    FSeen.Now = kStart + seconds * kSecond;
    FSeen.WallNow = kWallStart + seconds * kSecond;
    TSteps shown;
    for (const TStep& step : DecideRound(FSeen, FState)) shown.push_back(Shown(step));
    FStatusLine = shown.front();
    shown.erase(shown.begin());
    return shown;
  }

  // Only that the status was logged, and the steps that act upon the daemon.
  TSteps ActionsAt(double seconds) {
    TSteps actions;
    for (const std::string& step : RoundAt(seconds)) {
      if (step.starts_with("log: Status")) actions.emplace_back("status logged");
      if (step.find(": ") == std::string::npos) actions.push_back(step);
    }
    return actions;
  }

  TObservation FSeen;
  TWatchdogState FState;
  std::string FStatusLine;
};

TEST_F(WatchdogDecisionTest, AHealthyRoundOnlyShowsTheStatusAndLogsItOnceAMinute) {
  FSeen.Pulse = FState.LastSeenPulse = 7;
  EXPECT_THAT(RoundAt(10), IsEmpty());
  EXPECT_EQ(
      FStatusLine,
      "status: Status at 2026-11-21 06:00:10: MutexOK=Y, PipeStatusOK=Y, ServiceOK=Y, PID=42");
  FState.LastStatusLogAt = FSeen.Now - kMinute;
  EXPECT_THAT(RoundAt(10), IsEmpty()) << "exactly a minute";
  FState.LastStatusLogAt -= 0.001 * kSecond;
  EXPECT_THAT(RoundAt(10), ElementsAre("log: Status: Mutex=Y Service=Y Pipe=Y Pulse: 7"));
}

TEST_F(WatchdogDecisionTest, AStillPulseMakesItAskAfter72Seconds) {
  FSeen.Pulse = 5;
  EXPECT_THAT(RoundAt(0), ElementsAre("log: Pulse change detected, FLastPulseAt now:"
                                      "2026-11-21 06:00:00"));
  RoundAt(72);
  FState.LastPulseAt = FSeen.Now - 1.2 * kMinute;
  EXPECT_THAT(RoundAt(72), IsEmpty()) << "exactly 72 seconds";
  FState.LastPulseAt = kStart;
  EXPECT_THAT(RoundAt(72.01), ElementsAre("log: Pulse change over 1.2 minutes ago, last pulse was "
                                          "at:2026-11-21 06:00:00",
                                          "send msgEnquireStatus"));
}

TEST_F(WatchdogDecisionTest, ADeadDaemonIsStartedAndALostMutexAsksForTheTimer) {
  FSeen.MutexOK = false;
  EXPECT_THAT(RoundAt(10),
              ElementsAre("log: Status: Mutex=N Service=Y Pipe=Y Pulse: 0", "send msgStartTimer",
                          "error 1/16: Mutex not OK - start timer command sent to service.",
                          "log: Mutex failure counter = 1"));
  FSeen.PipeOK = FSeen.ServiceOK = false;
  EXPECT_THAT(RoundAt(20),
              ElementsAre("log: Status: Mutex=N Service=N Pipe=N Pulse: 0",
                          "error 1/16: Service not running - need to start service.", "start"));
}

TEST_F(WatchdogDecisionTest, ALostPipeEscalatesFromTheSixthRoundOn) {
  FSeen.PipeOK = false;
  for (int round = 1; round <= 5; ++round) RoundAt(10 * round);
  EXPECT_THAT(RoundAt(60), ElementsAre("log: Status: Mutex=Y Service=Y Pipe=N Pulse: 0",
                                       "log: Pipe failure counter = 6",
                                       "error 1/16: Pipe not OK - need to restart service.",
                                       "log: Need to restart service, attempt counter = 1",
                                       "error 3/1: Need to restart Vellumark_Service", "stop"));
}

// What the rounds so far make the watchdog do in the next one.
struct TLifeModel {
  TSteps Expect(const TObservation& seen) {
    const bool allOK = seen.MutexOK && seen.PipeOK && seen.ServiceOK;
    const bool counts = seen.ServiceOK && seen.MutexPathKnown;
    const bool mutexLost = counts && !seen.MutexOK, pipeLost = counts && !seen.PipeOK;
    TSteps steps;
    if (!allOK || seen.Now - LoggedAt > 60.5 * kSecond) {
      steps.emplace_back("status logged");
      LoggedAt = seen.MutexOK && seen.ServiceOK ? seen.Now : 0;
    }
    if (!allOK || seen.Pulse != Pulse) PulseAt = seen.Now;
    if (allOK) Pulse = seen.Pulse;
    if (seen.Now - PulseAt > 72.5 * kSecond) steps.emplace_back("send msgEnquireStatus");
    if (!seen.ServiceOK) steps.emplace_back("start");
    if (mutexLost) steps.emplace_back("send msgStartTimer");
    MutexFailures = seen.MutexOK ? 0 : MutexFailures + (mutexLost ? 1 : 0);
    PipeFailures = seen.PipeOK ? 0 : PipeFailures + (pipeLost ? 1 : 0);
    const bool isDue = (mutexLost && MutexFailures >= 6) || (pipeLost && PipeFailures >= 6);
    Restarts = isDue ? Restarts + 1 : 0;
    if (isDue) steps.emplace_back(Restarts == 1 ? "stop" : Restarts <= 4 ? "terminate" : "kill");
    return steps;
  }

  TDateTime LoggedAt = 0;
  TDateTime PulseAt = kStart;
  std::int64_t Pulse = 0;
  int MutexFailures = 0, PipeFailures = 0, Restarts = 0;
};

// Hours of rounds under faults that come and go at random, with jumps of the clock.
TEST_F(WatchdogDecisionTest, KeepsToItsModelThroughALifeOfRandomFaults) {
  for (unsigned seed = 1; seed <= 50; ++seed) {
    std::mt19937 random(seed);
    const auto oneIn = [&](unsigned n) { return random() % n == 0; };
    FState = {.LastPulseAt = kStart};
    FSeen.Pulse = 0;
    TLifeModel model;
    double seconds = 0;
    for (int round = 0; round < 360; ++round) {
      seconds += oneIn(50) ? 3600 : 10;
      FSeen.MutexOK ^= oneIn(8);
      FSeen.PipeOK ^= oneIn(8);
      FSeen.ServiceOK ^= oneIn(15);
      FSeen.MutexPathKnown ^= oneIn(40);
      FSeen.Pulse += oneIn(10) ? 1 : 0;
      const TSteps actions = ActionsAt(seconds);
      ASSERT_EQ(actions, model.Expect(FSeen)) << "seed " << seed << ", round " << round;
    }
  }
}

TEST_F(WatchdogDecisionTest, SaysBeforeEachRoundHowItWillEndTheDaemon) {
  const auto says = [this](const std::string& text) {
    return DescribeNext(FSeen, FState).find(text) != std::string::npos;
  };
  EXPECT_TRUE(says("Nothing to do."));
  FSeen.MutexOK = false;
  for (int round = 1; round <= 12; ++round) {
    const bool counts = says("of 6; at the last one the Guardian stops");
    const std::string said = DescribeNext(FSeen, FState);
    const TSteps done = ActionsAt(round * 10);
    for (const auto& [step, verb] : {std::pair("terminate", "terminates the daemon."),
                                     std::pair("kill", "kills the daemon.")}) {
      const bool ended = std::find(done.begin(), done.end(), step) != done.end();
      EXPECT_EQ(ended, said.find(verb) != std::string::npos) << round << said;
    }
    EXPECT_EQ(counts, round <= 6) << said;
    EXPECT_EQ(says("Failure 5 of 6;"), round == 5);
  }
  FSeen.MutexPathKnown = false;
  EXPECT_TRUE(says("has not named its mutex directory"));
  FSeen.MutexOK = true;
  FState.LastPulseAt = FSeen.Now - 73 * kSecond;
  EXPECT_TRUE(says("it never restarts it for a still pulse"));
  FSeen.ServiceOK = false;
  EXPECT_TRUE(says("starts the daemon"));
  FSeen.ServiceKnown = false;
  EXPECT_TRUE(says("until the process list can be read"));
}

}  // namespace
}  // namespace guardian
