#pragma once

#include <string>

#include "common/Clock.h"

namespace guardian {

// The exit statuses of the process, by the convention of service scripts.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitNotRunning = 3;

// The program: acts on the first word of the command line, then returns the exit status.
// "start" makes the process a daemon unless a Guardian answers already; "stop" and "status" ask
// the running one; anything else runs the Guardian in the foreground, until it is told to end.
// The watchdog decides by the clock, which outlives the call.
// Threads: the main thread, before any other thread exists.
//
// "status" is kExitNotRunning when no Guardian answers. "stop" is kExitOk when nobody answers, or
// when a Guardian says that it stops and has ended, for which it waits up to 30 seconds; otherwise,
// as after any other answer, it is kExitFailed. A Guardian that cannot run says why in one line and
// is kExitFailed. All else is kExitOk.
[[nodiscard]] int GuardianMain(TClock& clock = SystemClock());

enum class TQueryOutput { AnswerOnly, AnswerOrFailure };

// Asks the Guardian on port 8900 of this machine for a page, for at most 60 seconds, and prints
// its answer; with AnswerOrFailure also a line when there is no answer. Returns whether the answer
// says that the Guardian is running. Starts no thread. Never throws for a failed query.
bool QueryGuardian(const std::string& page, TQueryOutput output);

}  // namespace guardian
