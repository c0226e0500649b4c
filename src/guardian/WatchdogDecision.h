#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/Clock.h"
#include "ipc/SyncProtocolSharedTypes.h"

namespace guardian {

// What one round of the watchdog saw. Instants are of TClock::SteadyNow, except for WallNow.
struct TObservation {
  TDateTime Now = 0;
  TDateTime WallNow = 0;  // The same moment on the local wall clock.
  bool MutexOK = false;
  bool PipeOK = false;
  bool PipeJustConnected = false;
  bool ServiceOK = false;
  bool ServiceKnown = true;     // The process list could be read; otherwise ServiceOK is false.
  bool MutexPathKnown = false;  // The handshake named the mutex directory.
  std::int64_t Pulse = 0;
  std::string Pid;
};

// What the watchdog keeps from round to round.
struct TWatchdogState {
  TDateTime LastStatusLogAt = 0;  // Zero: log the status in the next round.
  TDateTime LastPulseAt = 0;
  std::int64_t LastSeenPulse = 0;

  // Consecutive rounds in which a restart was needed.
  std::int32_t RestartAttempts = 0;
  // Rounds since the check last succeeded in which it failed while the daemon's process ran.
  std::int32_t MutexFailures = 0;
  std::int32_t PipeFailures = 0;

  // Begins to count anew.
  void ForgetFailures() { RestartAttempts = MutexFailures = PipeFailures = 0; }
};

enum class TStepKind {
  StatusLine,  // Text becomes the status line, and is logged.
  Log,
  WarningEntry,
  ErrorEntry,
  SendCommand,
  StartDaemon,
  StopDaemon,
  TerminateDaemon,
  KillDaemon,
};

// One thing to do. Category and Event are set for entries only, Command for SendCommand only.
struct TStep {
  TStepKind Kind = TStepKind::Log;
  std::string Text;
  int Category = 0;
  int Event = 0;
  TSyncCommMessages Command = TSyncCommMessages::msgNone;
};

// Whether the process list must be read afresh: something failed now or in the round before.
[[nodiscard]] bool NeedsFreshProcessCheck(bool mutexOK, bool pipeOK, bool lastServiceOK);

// Judges one round: without a process list nothing is started, counted or ended. Updates the state
// and returns what is to be done, in order. Knows neither clock nor shell nor socket.
[[nodiscard]] std::vector<TStep> DecideRound(const TObservation& seen, TWatchdogState& state);

// What the watchdog will do after such a round, if nothing changes: a sentence for a person.
[[nodiscard]] std::string DescribeNext(const TObservation& seen, const TWatchdogState& state);

}  // namespace guardian
