#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "common/Clock.h"

namespace guardian {

// Tells which messages have been given lately.
// Threads: not shared.
class TMessageThrottle {
 public:
  static constexpr std::int64_t kQuietMilliseconds = 3'600'000;
  static constexpr std::size_t kMaxRemembered = 256;

  // True for a message that was not admitted within the hour before the tick (milliseconds). It
  // remembers kMaxRemembered different messages; the oldest is forgotten first, and admitted again.
  [[nodiscard]] bool Admit(std::string_view text, std::int64_t tick);

 private:
  void ForgetOldest();

  std::map<std::string, std::int64_t, std::less<>> FAdmittedAt;
};

// Writes a line to the machine's system log. It may throw; it must not wait for another thread.
using TLastResort = std::function<void(std::string_view line)>;

// Sets what writes the messages that nobody else would see, an empty one for nobody. When it
// returns, the former one does not run and never will. Threads: the one that starts and stops the
// process's units.
void SetLastResort(TLastResort writer);

// Writes a message of the diagnostics as one line: to the error log, after the local date-time and
// a blank; while that log is closed to the debug output, and when nobody takes it there, to the
// system log. An identical message within one hour is dropped. Never throws; a message that cannot
// be written is lost. Threads: any.
void DiagnosticMessage(std::string_view text, const TClock& clock = SystemClock()) noexcept;

// In a catch block: the exception that is being handled as the message "<where> Exception:
// <message>".
void DiagnosticFailure(std::string_view where, const TClock& clock = SystemClock()) noexcept;

// Runs the step; what it throws becomes such a message. Returns whether the step came to its end.
template <typename TStep>
bool Guarded(std::string_view where, const TClock& clock, const TStep& step) noexcept {
  try {
    step();
    return true;
  } catch (...) {
    DiagnosticFailure(where, clock);
    return false;
  }
}

}  // namespace guardian
