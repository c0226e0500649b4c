#include "common/Clock.h"

#include <langinfo.h>
#include <time.h>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstring>
#include <string_view>

#include "common/NeverDestroyed.h"

namespace guardian {
namespace {

constexpr TDateTime kSteadyOriginDays = 10'000;  // Keeps every steady instant far above zero.

std::int64_t ReadMilliseconds(clockid_t clock) noexcept {
  timespec now{};
  clock_gettime(clock, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

TDateTime FromUnixMilliseconds(std::int64_t milliseconds) {
  return static_cast<TDateTime>(milliseconds) / static_cast<double>(kMillisecondsPerDay) +
         static_cast<TDateTime>(kUnixEpochDays);
}

// The broken-down time of a day count, which already is in the zone to show.
std::tm BrokenDown(TDateTime value) {
  const auto milliseconds = static_cast<std::int64_t>(std::llround(
      (value - static_cast<TDateTime>(kUnixEpochDays)) * static_cast<double>(kMillisecondsPerDay)));
  const time_t seconds = (milliseconds >= 0 ? milliseconds : milliseconds - 999) / 1000;
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  return parts;
}

std::string Formatted(const char* format, TDateTime value) {
  const std::tm parts = BrokenDown(value);
  char text[128];
  const std::size_t length = std::strftime(text, sizeof(text), format, &parts);
  return {text, length};
}

bool IsPlainLocale() {
  const std::string_view name = std::setlocale(LC_TIME, nullptr);
  return name == "C" || name == "POSIX" || name.starts_with("C.");
}

class TSystemClock final : public TClock {
 public:
  TDateTime Now() const override {
    const std::int64_t milliseconds = ReadMilliseconds(CLOCK_REALTIME);
    const time_t seconds = milliseconds / 1000;
    std::tm parts{};
    localtime_r(&seconds, &parts);
    return FromUnixMilliseconds(milliseconds + std::int64_t{parts.tm_gmtoff} * 1000);
  }

  TDateTime UtcNow() const override {
    return FromUnixMilliseconds(ReadMilliseconds(CLOCK_REALTIME));
  }

  std::int64_t TickCount() const override { return SystemTickCount(); }

  bool WaitUntil(TMutex& mutex, TCondition& condition, std::int64_t deadlineTick,
                 const std::function<bool()>& predicate) override KZ_REQUIRES(mutex) {
    // The condition variable's own clock stands still while the machine sleeps, and a wait of
    // centuries would overflow it: an hour at a time, and the time left is worked out anew.
    constexpr std::int64_t kLongestWait = 3'600'000;
    while (!predicate()) {
      const std::int64_t left = deadlineTick - TickCount();
      if (left <= 0) return false;
      condition.WaitFor(mutex, std::chrono::milliseconds(std::min(left, kLongestWait)));
    }
    return true;
  }
};

}  // namespace

std::int64_t UnixSeconds(TDateTime utc) {
  constexpr double kRounding = 0.001;
  return static_cast<std::int64_t>(
      std::floor((utc - static_cast<TDateTime>(kUnixEpochDays)) / kSecond + kRounding));
}

TDateTime FromUnixSeconds(std::int64_t seconds) { return FromUnixMilliseconds(seconds * 1000); }

void TClock::Sleep(std::chrono::milliseconds duration) {
  TMutex mutex;
  TCondition condition;
  const TMutexLock lock(mutex);
  WaitUntil(mutex, condition, TickCount() + duration.count(), [] { return false; });
}

TDateTime TClock::SteadyNow() const {
  return kSteadyOriginDays +
         static_cast<TDateTime>(TickCount()) / static_cast<double>(kMillisecondsPerDay);
}

TDateTime TClock::ToWallTime(TDateTime steady) const {
  return steady == 0 ? 0 : Now() - (SteadyNow() - steady);
}

TClock& SystemClock() {
  // Threads that are left behind at the end of the process use it.
  static TNeverDestroyed<TSystemClock> clock;
  return *clock;
}

std::int64_t SystemTickCount() noexcept { return ReadMilliseconds(CLOCK_BOOTTIME); }

std::string DateTimeToStr(TDateTime value) {
  return Formatted(IsPlainLocale() ? "%Y-%m-%d %H:%M:%S" : "%x %X", value);
}

std::string IsoDateTimeToStr(TDateTime utc) { return Formatted("%Y-%m-%dT%H:%M:%SZ", utc); }

std::string TimeOfDayToStr(TDateTime value) { return Formatted("%H:%M:%S", value); }

}  // namespace guardian
