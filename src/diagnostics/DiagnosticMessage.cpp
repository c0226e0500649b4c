#include "diagnostics/DiagnosticMessage.h"

#include <algorithm>

#include "common/Exceptions.h"
#include "diagnostics/DebugOutput.h"
#include "diagnostics/ErrorLog.h"
#include "diagnostics/KZCriticalSection.h"

namespace guardian {
namespace {

struct TProcessThrottle {
  TKZCriticalSection Lock{"DiagnosticMessage"};
  TMessageThrottle Throttle KZ_GUARDED_BY(Lock);
};

bool Admit(std::string_view text, std::int64_t tick) {
  // Made at first use, never freed: threads may have something to say until the very end.
  static TProcessThrottle& process = *new TProcessThrottle;
  const TKZLockGuard lock(process.Lock);
  return process.Throttle.Admit(text, tick);
}

}  // namespace

bool TMessageThrottle::Admit(std::string_view text, std::int64_t tick) {
  const auto known = FAdmittedAt.find(text);
  if (known != FAdmittedAt.end()) {
    if (tick - known->second < kQuietMilliseconds) return false;
    known->second = tick;
    return true;
  }
  if (FAdmittedAt.size() >= kMaxRemembered) ForgetOldest();
  FAdmittedAt.emplace(text, tick);
  return true;
}

void TMessageThrottle::ForgetOldest() {
  FAdmittedAt.erase(
      std::min_element(FAdmittedAt.begin(), FAdmittedAt.end(),
                       [](const auto& a, const auto& b) { return a.second < b.second; }));
}

void DiagnosticMessage(std::string_view text, const TClock& clock) noexcept {
  try {
    if (!Admit(text, clock.TickCount())) return;
    if (ErrorLog().Enabled()) return ErrorLog().WriteLine(text);
  } catch (...) {
    // Lack of memory shall not cost the message.
  }
  DebugOutput(text);
}

void DiagnosticFailure(std::string_view where, const TClock& clock) noexcept {
  try {
    DiagnosticMessage(std::string(where) + " Exception: " + CurrentExceptionMessage(), clock);
  } catch (...) {
    DebugOutput(where);
  }
}

}  // namespace guardian
