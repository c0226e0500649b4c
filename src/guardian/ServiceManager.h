#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/Clock.h"

namespace guardian {

// Tells the service manager that has started this process how the process is, by the datagrams that
// systemd takes. Nothing waits for it: what it does not take at once is lost, and the next report
// says it again. Without a service manager nothing happens.
// Owner: the entry.
// Threads: the main thread; made before any other thread exists.
// Lifetime: the clock outlives it.
class TServiceManager {
 public:
  // Takes NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID out of the environment, so that no child
  // gets them. A wrong one is a printed line and as good as none.
  explicit TServiceManager(TClock& clock = SystemClock());

  // The start goes on, for at most eleven minutes from now.
  void ExtendStart() const;

  // The time from one report to the next.
  [[nodiscard]] std::chrono::milliseconds Interval() const noexcept { return FInterval; }

  // Whether the interval is over; always before the first report, never without a service manager.
  [[nodiscard]] bool IsDue() const;

  // The service has started and has this status line. The watchdog, if there is one, is fed as long
  // as the name of what stands still is empty.
  void Report(const std::string& status, std::string_view standsStill);

  // The process is about to end.
  void ReportEnd() const;

 private:
  void ReadWatchdog(const std::string& limit, const std::string& pid);
  // Returns whether the service manager took them.
  bool Send(std::string_view lines) const;

  TClock& FClock;
  std::string FSocket;  // Empty for no service manager; an abstract name begins with a zero byte.
  bool FHasWatchdog = false;
  std::chrono::milliseconds FInterval{10'000};
  std::int64_t FDueTick = 0;
  std::optional<std::string> FToldStatus;  // None before the first report that was taken.
};

}  // namespace guardian
