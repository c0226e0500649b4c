#include "common/DiagnosticMessage.h"

#include <algorithm>

#include "common/Console.h"
#include "common/ErrorLog.h"
#include "common/Exceptions.h"
#include "common/Mutex.h"
#include "common/NeverDestroyed.h"

namespace guardian {
namespace {

struct TProcessThrottle {
  TMutex Lock;
  TMessageThrottle Throttle KZ_GUARDED_BY(Lock);
};

TProcessThrottle& Process() {
  static TNeverDestroyed<TProcessThrottle> process;
  return *process;
}

bool Admit(std::string_view text, std::int64_t tick) {
  TProcessThrottle& process = Process();
  const TMutexLock lock(process.Lock);
  return process.Throttle.Admit(text, tick);
}

struct TSystemLogOutlet {
  TMutex Lock;  // Held while the writer runs, so that it can be taken away.
  TLastResort Writer KZ_GUARDED_BY(Lock);
};

TSystemLogOutlet& SystemLogOutlet() {
  static TNeverDestroyed<TSystemLogOutlet> outlet;
  return *outlet;
}

// A failure of the writer that is itself such a message ends here, instead of going round.
void WriteToSystemLog(std::string_view line) noexcept {
  static constinit thread_local bool isWriting = false;
  if (isWriting) return;
  isWriting = true;
  try {
    TSystemLogOutlet& outlet = SystemLogOutlet();
    const TMutexLock lock(outlet.Lock);
    if (outlet.Writer) outlet.Writer(line);
  } catch (...) {
    // There is no place left to report this to.
  }
  isWriting = false;
}

void WriteWithoutErrorLog(std::string_view line) noexcept {
  if (!DebugOutput(line)) WriteToSystemLog(line);
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

void SetLastResort(TLastResort writer) {
  TSystemLogOutlet& outlet = SystemLogOutlet();
  const TMutexLock lock(outlet.Lock);
  outlet.Writer.swap(writer);
}

void DiagnosticMessage(std::string_view text, const TClock& clock) noexcept {
  try {
    if (!Admit(text, clock.TickCount())) return;
    if (ErrorLog().Enabled()) {
      return ErrorLog().WriteLine(DateTimeToStr(clock.Now()).append(" ").append(text));
    }
  } catch (...) {
    // Lack of memory shall not cost the message.
  }
  WriteWithoutErrorLog(text);
}

void DiagnosticFailure(std::string_view where, const TClock& clock) noexcept {
  try {
    DiagnosticMessage(std::string(where) + " Exception: " + CurrentExceptionMessage(), clock);
  } catch (...) {
    WriteWithoutErrorLog(where);
  }
}

}  // namespace guardian
