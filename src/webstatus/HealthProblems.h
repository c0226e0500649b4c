#pragma once

#include <string>

#include "webstatus/GuardianControl.h"

namespace guardian {

// The one judgement of the daemon's and the watchdog's health. Pure functions; threads: any.

// Whether the watchdog makes its rounds: the last one, or before the first its start, was at most
// 120 seconds ago.
[[nodiscard]] bool MakesItsRounds(const TWatchdogReading& seen);

// What is not well, with commas between: the checks "mutex", "pipe" and "service" by the last
// round, and "round" when that round is too old. Only "round" before the first; empty when all is
// well.
[[nodiscard]] std::string HealthProblems(const TWatchdogReading& seen);

}  // namespace guardian
