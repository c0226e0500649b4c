#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "common/Clock.h"
#include "common/Mutex.h"
#include "common/SharedText.h"
#include "webstatus/History.h"

namespace guardian {

// The severity of an entry in the system log.
enum class TSystemLogKind { Error = 1, Warning = 2, Information = 4 };

// The two HTML texts that the main page shows: the short activity log, with the entries alone, and
// the detailed one, with the entries and the lines between them. Each is kept at or below
// kActivityLogLimit characters; the oldest entries are dropped whole.
//
// The messages of entries are plain text: the system log gets them as they are, and this class
// escapes them for HTML. Details are HTML already: the caller escapes what comes from outside.
// Entries are events of the history, too, if there is one.
// Owner: the guardian service.
// Threads: any thread may call anything. Readers do not wait for writers.
// Lifetime: clock, system log and history outlive it.
class TActivityLog {
 public:
  // Hands a plain text to the system log; may block briefly, must not throw.
  using TSystemLog = std::function<void(std::string_view message, TSystemLogKind kind)>;

  explicit TActivityLog(TSystemLog systemLog, TClock& clock = SystemClock(),
                        THistory* history = nullptr);
  TActivityLog(const TActivityLog&) = delete;
  TActivityLog& operator=(const TActivityLog&) = delete;

  // Category and event name the entry for the caller; the text does not show them. The caller keeps
  // lastSystemLogAt, an instant of TClock::SteadyNow. Errors and warnings go to the system log only
  // when that instant is more than 10 minutes ago; it is then set to now.
  void AddErrorEntry(int category, int event, std::string_view message, TDateTime& lastSystemLogAt)
      KZ_EXCLUDES(FLock);
  void AddWarningEntry(int category, int event, std::string_view message,
                       TDateTime& lastSystemLogAt) KZ_EXCLUDES(FLock);
  // The kind is that of the history's event.
  void AddInfoEntry(int category, int event, std::string_view message,
                    TEventKind kind = TEventKind::Info) KZ_EXCLUDES(FLock);

  // Adds to the detailed log only, without a time.
  void AddDetailEntry(std::string_view message) KZ_EXCLUDES(FLock);

  // The logs of this moment.
  [[nodiscard]] TTextPieces ShortLog() const { return FShortLog.Copy(); }
  [[nodiscard]] TTextPieces DetailedLog() const { return FDetailedLog.Copy(); }

 private:
  void AddEntry(TEventKind kind, std::string_view message) KZ_EXCLUDES(FLock);
  void ForwardThrottled(std::string_view message, TSystemLogKind kind,
                        TDateTime& lastSystemLogAt) const;

  const TSystemLog FSystemLog;
  TClock& FClock;
  THistory* const FHistory;
  // Only writers enter it; readers take the published texts.
  TMutex FLock;
  TShared<TTextPieces> FShortLog;
  TShared<TTextPieces> FDetailedLog;
};

inline constexpr std::size_t kActivityLogLimit = 131'072;

// While the log is longer than kActivityLogLimit, drops its start through the next "<br>". A log
// without a "<br>" loses three characters at a time instead.
void TrimActivityLogs(TTextPieces& log);

}  // namespace guardian
