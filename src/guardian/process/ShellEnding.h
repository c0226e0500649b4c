#pragma once

#include <chrono>
#include <cstdint>

namespace guardian {

// How a shell command came to its end.
enum class TShellEnd { Exited, CouldNotRun, TimedOut, TooMuchOutput, Cancelled };

// What is to be done to a running command.
enum class TShellAction {
  Wait,
  Terminate,  // SIGTERM to its process group.
  Kill,       // SIGKILL to its process group.
  GiveUp,     // Not even that ended it: leave it.
};

// A command that writes more is ended.
inline constexpr std::uint64_t kMaxShellFileBytes = 134'217'728;

// Decides when a running command is ended, and by what. Pure: it knows no process and no clock.
// Owner: one run of a command. Threads: not shared.
class TShellEnding {
 public:
  TShellEnding(std::chrono::milliseconds timeout, std::int64_t nowTick)
      : FLeftMs(timeout.count()), FLastTick(nowTick) {}

  // Called round by round, each some milliseconds after the one before; a round that took longer
  // than a second counts as one second, since it was this process that stood still.
  [[nodiscard]] TShellAction Decide(std::int64_t nowTick, std::uint64_t outputBytes,
                                    bool cancelled);

  // Why the command is being ended; Exited while it is not.
  [[nodiscard]] TShellEnd Reason() const noexcept { return FReason; }

  // The time to the next decision that time alone brings about.
  [[nodiscard]] std::chrono::milliseconds Left() const noexcept {
    return std::chrono::milliseconds(FLeftMs);
  }

 private:
  enum class TPhase { Running, Terminated, Killed };

  [[nodiscard]] TShellEnd ReasonToEnd(std::uint64_t outputBytes, bool cancelled) const;
  TShellAction Enter(TPhase phase, bool cancelled);

  TPhase FPhase = TPhase::Running;
  TShellEnd FReason = TShellEnd::Exited;
  std::int64_t FLeftMs;  // Of the current phase.
  std::int64_t FLastTick;
};

}  // namespace guardian
