#include "webstatus/HealthProblems.h"

namespace guardian {

bool MakesItsRounds(const TWatchdogReading& seen) {
  constexpr double kLongestSec = 120;
  return seen.CheckAgeSec.value_or(seen.UptimeSec) <= kLongestSec;
}

std::string HealthProblems(const TWatchdogReading& seen) {
  if (!seen.CheckAgeSec) return "round";
  std::string problems;
  const auto check = [&problems](bool ok, const char* name) {
    if (!ok) problems.append(problems.empty() ? "" : ",").append(name);
  };
  check(seen.MutexOK, "mutex");
  check(seen.PipeOK, "pipe");
  check(seen.ServiceOK, "service");
  check(MakesItsRounds(seen), "round");
  return problems;
}

}  // namespace guardian
