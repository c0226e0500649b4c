#pragma once

#include <chrono>
#include <cstdint>

namespace guardian {

// Why a shell command ended.
enum class TShellEnd { Exited, CouldNotRun, TimedOut, TooMuchOutput, Cancelled };

// What to do about a running command now.
enum class TShellAction {
  Wait,
  Terminate,  // SIGTERM to its process group.
  Kill,       // SIGKILL to its process group.
  GiveUp,     // SIGKILL did not end it in time: leave it.
};

// A command that writes more than this is ended.
inline constexpr std::uint64_t kMaxShellFileBytes = 134'217'728;

// Decides when a running command is ended, and by which signal. Knows no process and no clock.
// Owner: one run of a command.
// Threads: not shared.
class TShellEnding {
 public:
  TShellEnding(std::chrono::milliseconds timeout, std::int64_t nowTick)
      : FLeftMs(timeout.count()), FLastTick(nowTick) {}

  // Called once a round, some milliseconds after the round before. A round of more than a second
  // counts as one second, because this process itself stood still then.
  [[nodiscard]] TShellAction Decide(std::int64_t nowTick, std::uint64_t outputBytes,
                                    bool cancelled);

  // Why the command is being ended; Exited while nobody ends it.
  [[nodiscard]] TShellEnd Reason() const noexcept { return FReason; }

  // The time until the next signal or GiveUp is due.
  [[nodiscard]] std::chrono::milliseconds Left() const noexcept {
    return std::chrono::milliseconds(FLeftMs);
  }

 private:
  enum class TPhase { Running, Terminated, Killed };

  [[nodiscard]] TShellEnd ReasonToEnd(std::uint64_t outputBytes, bool cancelled) const;
  TShellAction Enter(TPhase phase, bool cancelled);

  TPhase FPhase = TPhase::Running;
  TShellEnd FReason = TShellEnd::Exited;
  std::int64_t FLeftMs;  // Until the current phase ends.
  std::int64_t FLastTick;
};

}  // namespace guardian
