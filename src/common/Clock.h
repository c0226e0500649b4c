#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "common/Mutex.h"

namespace guardian {

// Days since 30 December 1899, the fraction being the time of day. Zero means "never".
using TDateTime = double;

inline constexpr std::int64_t kMillisecondsPerDay = 86'400'000;
inline constexpr std::int64_t kUnixEpochDays = 25'569;  // 30 December 1899 to 1 January 1970.

inline constexpr TDateTime kDay = 1.0;
inline constexpr TDateTime kMinute = 1.0 / 1440;
inline constexpr TDateTime kSecond = 1.0 / 86400;

// The whole seconds of Unix time at an instant of UTC, and back.
[[nodiscard]] std::int64_t UnixSeconds(TDateTime utc);
[[nodiscard]] TDateTime FromUnixSeconds(std::int64_t seconds);

// The one source of time. Code that decides by time takes it by reference.
// Owner: SystemClock() is process-wide and lives as long as the process; a test owns its own.
// Threads: any thread may call anything.
class TClock {
 public:
  TClock() = default;
  virtual ~TClock() = default;
  TClock(const TClock&) = delete;
  TClock& operator=(const TClock&) = delete;

  // Local wall time: for showing and for file names, never for an interval.
  [[nodiscard]] virtual TDateTime Now() const = 0;
  [[nodiscard]] virtual TDateTime UtcNow() const = 0;

  // Milliseconds that never step back and that count suspended time.
  [[nodiscard]] virtual std::int64_t TickCount() const = 0;

  // Waits until the condition is notified and the predicate holds, or TickCount() reaches the
  // deadline; returns the predicate's last value. The mutex is held whenever the predicate runs
  // and on return.
  virtual bool WaitUntil(TMutex& mutex, TCondition& condition, std::int64_t deadlineTick,
                         const std::function<bool()>& predicate) KZ_REQUIRES(mutex) = 0;

  // Blocks for the given time.
  void Sleep(std::chrono::milliseconds duration);

  // TickCount() as a day count that is always well above zero, so that zero stays "never" and
  // "now minus some days" stays positive. Compare such instants with each other only.
  [[nodiscard]] TDateTime SteadyNow() const;

  // The local wall time of an instant of SteadyNow(), judged by the wall clock of this moment;
  // zero stays zero.
  [[nodiscard]] TDateTime ToWallTime(TDateTime steady) const;
};

// The machine's clock.
[[nodiscard]] TClock& SystemClock();

// The machine's tick count without a virtual call, for the checkpoint hot path: milliseconds as
// SystemClock().TickCount().
[[nodiscard]] std::int64_t SystemTickCount() noexcept;

// The one text form of a date-time: the locale's short date and long time, or
// "2026-11-21 06:13:45" where the locale for times is "C" or "POSIX".
[[nodiscard]] std::string DateTimeToStr(TDateTime value);

// "2026-11-21T06:13:45Z", for programs.
[[nodiscard]] std::string IsoDateTimeToStr(TDateTime utc);

// "06:13:45", the time of day whatever the locale.
[[nodiscard]] std::string TimeOfDayToStr(TDateTime value);

}  // namespace guardian
