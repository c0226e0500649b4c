#include "guardian/process/ShellEnding.h"

#include <gtest/gtest.h>

namespace guardian {
namespace {

using std::chrono::milliseconds;

TEST(ShellEndingTest, StepsFromTerminateToKillToGivingUp) {
  constexpr auto Wait = TShellAction::Wait;
  TShellEnding ending(milliseconds(500), 0);
  EXPECT_EQ(ending.Decide(499, kMaxShellFileBytes, false), Wait);
  EXPECT_EQ(ending.Reason(), TShellEnd::Exited);
  EXPECT_EQ(ending.Decide(500, kMaxShellFileBytes, false), TShellAction::Terminate);
  EXPECT_EQ(ending.Decide(1500, 0, false), Wait);
  EXPECT_EQ(ending.Decide(2499, 0, false), Wait);
  EXPECT_EQ(ending.Decide(2500, 0, false), TShellAction::Kill);
  EXPECT_EQ(ending.Decide(3500, 0, false), Wait);
  EXPECT_EQ(ending.Decide(4500, 0, false), TShellAction::GiveUp);
  EXPECT_EQ(ending.Reason(), TShellEnd::TimedOut);

  TShellEnding tooMuch(milliseconds(500), 0);
  EXPECT_EQ(tooMuch.Decide(1, kMaxShellFileBytes + 1, false), TShellAction::Terminate);
  EXPECT_EQ(tooMuch.Reason(), TShellEnd::TooMuchOutput);
}

TEST(ShellEndingTest, CancellationEndsWithinASecondFromAnyState) {
  constexpr auto Wait = TShellAction::Wait;
  TShellEnding running(milliseconds(60'000), 0);
  EXPECT_EQ(running.Decide(0, 0, true), TShellAction::Terminate);
  EXPECT_EQ(running.Decide(499, 0, true), Wait);
  EXPECT_EQ(running.Decide(500, 0, true), TShellAction::Kill);
  EXPECT_EQ(running.Decide(799, 0, true), Wait);
  EXPECT_EQ(running.Decide(800, 0, true), TShellAction::GiveUp);
  EXPECT_EQ(running.Reason(), TShellEnd::Cancelled);

  TShellEnding timedOut(milliseconds(0), 0);
  EXPECT_EQ(timedOut.Decide(0, 0, false), TShellAction::Terminate);
  EXPECT_EQ(timedOut.Decide(100, 0, true), Wait);
  EXPECT_EQ(timedOut.Decide(600, 0, true), TShellAction::Kill);
  EXPECT_EQ(timedOut.Decide(900, 0, true), TShellAction::GiveUp);
  EXPECT_EQ(timedOut.Reason(), TShellEnd::TimedOut);
}

TEST(ShellEndingTest, AnHourOfSleepIsNoTimeoutOfTheCommand) {
  TShellEnding ending(milliseconds(5000), 0);
  EXPECT_EQ(ending.Decide(50, 0, false), TShellAction::Wait);
  EXPECT_EQ(ending.Decide(3'600'050, 0, false), TShellAction::Wait);
  EXPECT_EQ(ending.Left(), milliseconds(3950));
}

}  // namespace
}  // namespace guardian
