#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "common/Clock.h"
#include "common/Mutex.h"
#include "common/SharedText.h"

namespace guardian {

// What the system log is told about an entry.
enum class TSystemLogKind { Error = 1, Warning = 2, Information = 4 };

// The two HTML texts that the main page shows: the short activity log, with the entries alone, and
// the detailed one, with the entries and the lines between them. Both are held to
// kActivityLogLimit characters; the oldest entries are dropped whole.
//
// The messages of entries are plain text, which goes to the system log as it is and is escaped
// here; details are HTML, in which the caller has escaped what comes from outside.
// Owner: the guardian service. Threads: any thread may call anything; readers take no lock.
// Lifetime: clock and system log outlive it.
class TActivityLog {
 public:
  // Hands a plain text to the system log; may block briefly, must not throw.
  using TSystemLog = std::function<void(std::string_view message, TSystemLogKind kind)>;

  explicit TActivityLog(TSystemLog systemLog, TClock& clock = SystemClock());
  TActivityLog(const TActivityLog&) = delete;
  TActivityLog& operator=(const TActivityLog&) = delete;

  // Category and event identify the entry for the caller and are no part of the text. The system
  // log gets errors and warnings only when lastSystemLogAt, an instant of TClock::SteadyNow that
  // the caller keeps, is more than 10 minutes old; it is then set to now.
  void AddErrorEntry(int category, int event, std::string_view message, TDateTime& lastSystemLogAt)
      KZ_EXCLUDES(FLock);
  void AddWarningEntry(int category, int event, std::string_view message,
                       TDateTime& lastSystemLogAt) KZ_EXCLUDES(FLock);
  void AddInfoEntry(int category, int event, std::string_view message) KZ_EXCLUDES(FLock);

  // The detailed log only, without a time.
  void AddDetailEntry(std::string_view message) KZ_EXCLUDES(FLock);

  // The texts as they stand; never null.
  [[nodiscard]] TSharedText::TText ShortLog() const { return FShortLog.Get(); }
  [[nodiscard]] TSharedText::TText DetailedLog() const { return FDetailedLog.Get(); }

 private:
  void AddEntry(std::string_view kind, std::string_view message) KZ_EXCLUDES(FLock);
  void ForwardThrottled(std::string_view message, TSystemLogKind kind,
                        TDateTime& lastSystemLogAt) const;

  const TSystemLog FSystemLog;
  TClock& FClock;
  // Entered by writers only; readers take the published texts.
  TMutex FLock;
  TSharedText FShortLog;
  TSharedText FDetailedLog;
};

inline constexpr std::size_t kActivityLogLimit = 131'072;

// Drops whole entries from the log's start, each through its "<br>", while the log is longer than
// kActivityLogLimit. Of a log that is too long and holds no "<br>", three characters at a time.
void TrimActivityLog(std::string& log);

}  // namespace guardian
