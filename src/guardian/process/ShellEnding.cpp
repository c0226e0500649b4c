#include "guardian/process/ShellEnding.h"

#include <algorithm>

namespace guardian {
namespace {

constexpr std::int64_t kLongestRoundMs = 1000;
constexpr std::int64_t kGraceMs = 2000;
// The two together stay below the second within which the process must be able to stop.
constexpr std::int64_t kCancelledGraceMs = 500;
constexpr std::int64_t kCancelledGiveUpMs = 300;

}  // namespace

TShellAction TShellEnding::Decide(std::int64_t nowTick, std::uint64_t outputBytes, bool cancelled) {
  FLeftMs -= std::min(nowTick - FLastTick, kLongestRoundMs);
  FLastTick = nowTick;
  if (FPhase == TPhase::Running) {
    FReason = ReasonToEnd(outputBytes, cancelled);
    if (FReason == TShellEnd::Exited) return TShellAction::Wait;
    return Enter(TPhase::Terminated, cancelled);
  }
  if (cancelled) {
    FLeftMs =
        std::min(FLeftMs, FPhase == TPhase::Terminated ? kCancelledGraceMs : kCancelledGiveUpMs);
  }
  if (FLeftMs > 0) return TShellAction::Wait;
  if (FPhase == TPhase::Terminated) return Enter(TPhase::Killed, cancelled);
  return TShellAction::GiveUp;
}

TShellEnd TShellEnding::ReasonToEnd(std::uint64_t outputBytes, bool cancelled) const {
  if (cancelled) return TShellEnd::Cancelled;
  if (outputBytes > kMaxShellFileBytes) return TShellEnd::TooMuchOutput;
  return FLeftMs <= 0 ? TShellEnd::TimedOut : TShellEnd::Exited;
}

TShellAction TShellEnding::Enter(TPhase phase, bool cancelled) {
  FPhase = phase;
  if (phase == TPhase::Terminated) {
    FLeftMs = cancelled ? kCancelledGraceMs : kGraceMs;
    return TShellAction::Terminate;
  }
  FLeftMs = cancelled ? kCancelledGiveUpMs : kGraceMs;
  return TShellAction::Kill;
}

}  // namespace guardian
