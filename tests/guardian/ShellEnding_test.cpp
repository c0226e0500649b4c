#include "guardian/process/ShellEnding.h"

#include <gtest/gtest.h>

#include <string>

namespace guardian {
namespace {

// Asked every millisecond, the ending takes each step in exactly the millisecond of its limit.
TEST(ShellEndingTest, TakesEachStepAtItsLimit) {
  constexpr std::int64_t kNever = 100'000;
  constexpr std::uint64_t kMost = 134'217'728;
  const struct {
    int TimeoutMs;
    std::uint64_t OutputBytes;
    std::int64_t CancelledAt;
    std::int64_t AsleepAt;  // For an hour.
    const char* Steps;
    TShellEnd Reason;
  } cases[] = {
      {500, kMost, kNever, kNever, "terminate 500, kill 2500, give up 4500, ", TShellEnd::TimedOut},
      {9'000, kMost, kNever, kNever, "", TShellEnd::Exited},
      {500, kMost + 1, kNever, kNever, "terminate 0, kill 2000, give up 4000, ",
       TShellEnd::TooMuchOutput},
      {9'000, 0, 50, kNever, "terminate 50, kill 550, give up 850, ", TShellEnd::Cancelled},
      {0, 0, 100, kNever, "terminate 0, kill 600, give up 900, ", TShellEnd::TimedOut},
      {0, 0, 1900, kNever, "terminate 0, kill 2000, give up 2300, ", TShellEnd::TimedOut},
      {0, 0, 2100, kNever, "terminate 0, kill 2000, give up 2400, ", TShellEnd::TimedOut},
      {5'000, 0, kNever, 300, "terminate 3604000, kill 3606000, ", TShellEnd::TimedOut},
  };
  for (const auto& expected : cases) {
    SCOPED_TRACE(expected.Steps);
    TShellEnding ending(std::chrono::milliseconds(expected.TimeoutMs), 0);
    std::string steps;
    for (std::int64_t round = 0; round < 8'000; ++round) {
      constexpr const char* kNames[] = {"", "terminate ", "kill ", "give up "};
      const std::int64_t now = round < expected.AsleepAt ? round : round + 3'599'999;
      const auto action = ending.Decide(now, expected.OutputBytes, round >= expected.CancelledAt);
      if (action != TShellAction::Wait) {
        steps += kNames[static_cast<int>(action)] + std::to_string(now) + ", ";
      }
      if (action == TShellAction::GiveUp) break;
    }
    EXPECT_EQ(steps, expected.Steps);
    EXPECT_EQ(ending.Reason(), expected.Reason);
  }
}

}  // namespace
}  // namespace guardian
