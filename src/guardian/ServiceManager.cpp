#include "guardian/ServiceManager.h"

#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>

#include "common/Console.h"
#include "common/DiagnosticMessage.h"
#include "common/Environment.h"
#include "ipc/PipeSockets.h"

namespace guardian {
namespace {

// The variable's value; no child inherits the variable.
std::string Taken(const char* name) {
  std::string value = EnvironmentText(name);
  ::unsetenv(name);
  return value;
}

// Zero for anything but a number.
std::int64_t NumberOf(const std::string& text) {
  std::int64_t number = 0;
  const char* const end = text.data() + text.size();
  return std::from_chars(text.data(), end, number).ptr == end ? number : 0;
}

}  // namespace

TServiceManager::TServiceManager(TClock& clock) : FClock(clock), FSocket(Taken("NOTIFY_SOCKET")) {
  ReadWatchdog(Taken("WATCHDOG_USEC"), Taken("WATCHDOG_PID"));
  const bool fits = FSocket.size() > 1 && FSocket.size() < sizeof(sockaddr_un::sun_path);
  if (fits && FSocket.front() == '@') FSocket.front() = '\0';
  if (FSocket.empty() || (fits && (FSocket.front() == '/' || FSocket.front() == '\0'))) return;
  PrintLine("NOTIFY_SOCKET is neither an absolute path nor an abstract name: " + FSocket);
  FSocket.clear();
}

// The main loop, when it was woken early, makes a report up to an interval late: a quarter of the
// watchdog's time allows for that and for a report that is lost.
void TServiceManager::ReadWatchdog(const std::string& limit, const std::string& pid) {
  constexpr std::chrono::milliseconds kShortest{100};
  if (limit.empty() || (!pid.empty() && NumberOf(pid) != ::getpid())) return;
  const std::chrono::microseconds longest(NumberOf(limit));
  FHasWatchdog = longest.count() > 0;
  if (!FHasWatchdog) return PrintLine("WATCHDOG_USEC is no number of microseconds: " + limit);
  FInterval = std::clamp(std::chrono::duration_cast<std::chrono::milliseconds>(longest / 4),
                         kShortest, FInterval);
}

void TServiceManager::ExtendStart() const {
  constexpr std::chrono::microseconds kLongestStart = std::chrono::minutes(11);
  Send("EXTEND_TIMEOUT_USEC=" + std::to_string(kLongestStart.count()) +
       "\nSTATUS=Asks the daemon for its directories.\n");
}

bool TServiceManager::IsDue() const { return !FSocket.empty() && FClock.TickCount() >= FDueTick; }

void TServiceManager::Report(const std::string& status, std::string_view standsStill) {
  FDueTick = FClock.TickCount() + FInterval.count();
  std::string lines;
  if (!FToldStatus) lines += "READY=1\n";
  if (FToldStatus != status) lines += "STATUS=" + status + "\n";
  if (FHasWatchdog && standsStill.empty()) lines += "WATCHDOG=1\n";
  if (!lines.empty() && Send(lines)) FToldStatus = status;
  if (FHasWatchdog && !standsStill.empty()) {
    DiagnosticMessage("The service manager's watchdog is not fed, since this stands still: " +
                      std::string(standsStill));
  }
}

void TServiceManager::ReportEnd() const { Send("STOPPING=1\n"); }

bool TServiceManager::Send(std::string_view lines) const {
  return !FSocket.empty() && SendDatagram(FSocket, lines);
}

}  // namespace guardian
