#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "system/GuardianFixture.h"

namespace guardian {

// The lines of the detailed log on the main page.
inline std::vector<std::string> DetailedLog(const std::string& page) {
  constexpr std::string_view kHeading = "Detailed Activity Log:";
  constexpr std::string_view kBreak = "<br>";
  std::vector<std::string> lines;
  std::size_t at = page.find(kHeading);
  while (at != std::string::npos && (at = page.find(kBreak, at)) != std::string::npos) {
    at += kBreak.size();
    lines.push_back(page.substr(at, page.find(kBreak, at) - at));
  }
  return lines;
}

// Those that begin with one of the texts, without the output of what was executed.
inline std::vector<std::string> LinesOf(const std::string& page,
                                        const std::vector<std::string>& starts) {
  std::vector<std::string> found;
  for (const std::string& line : DetailedLog(page)) {
    const bool wanted = std::any_of(starts.begin(), starts.end(),
                                    [&line](const auto& start) { return line.starts_with(start); });
    if (wanted) found.push_back(line.substr(0, line.find(", Result: ")));
  }
  return found;
}

// The Guardian with time that runs ten times as fast: a tick is a second.
class EscalationTest : public GuardianSystemTest {
 protected:
  explicit EscalationTest(const char* executable = FAST_GUARDIAN_EXECUTABLE)
      : GuardianSystemTest(executable) {}

  // Starts both and waits until the Guardian finds nothing to complain of.
  void StartHealthy() {
    StartDaemon();
    StartGuardian();
    ASSERT_TRUE(Eventually([] { return PageHas(kHealthy); })) << Page("");
  }

  // A lost mutex with a daemon that only SIGKILL ends: every step of the escalation, in order.
  void ExpectFullEscalation(std::chrono::seconds limit) {
    StartHealthy();
    const std::string pid = std::to_string(DaemonPid());
    OrderFault("drop-mutex\nignore-stop\nignore-term");
    ASSERT_TRUE(Eventually([&] { return !DaemonRuns() || DaemonPid() != std::stoi(pid); }, limit))
        << Page("");
    OrderFault("");
    ASSERT_TRUE(AnotherDaemonRuns(std::stoi(pid)));

    const std::string attempt = "Need to restart service, attempt counter = ";
    std::vector<std::string> expected;
    for (int failure = 1; failure <= 10; ++failure) {
      expected.push_back("Mutex failure counter = " + std::to_string(failure));
      if (failure < 6) continue;
      expected.push_back(attempt + std::to_string(failure - 5));
      expected.push_back("Executed " + (failure == 6   ? DaemonPath() + " stop"
                                        : failure <= 9 ? "kill " + pid
                                                       : "kill -9 " + pid));
    }
    const std::string start = "Executed " + DaemonPath() + " start";
    expected.push_back(start);
    EXPECT_TRUE(Eventually([&] { return PageHas(start); }));
    const std::string page = Page("");
    std::vector<std::string> seen =
        LinesOf(page, {"Mutex failure counter = ", attempt, "Executed "});
    // A tick may have come after the start, before the next daemon took its mutex.
    seen.resize(std::min(seen.size(), expected.size()));
    EXPECT_EQ(seen, expected) << page;
    EXPECT_TRUE(DaemonLogHas("SIGTERM from PID"));
    EXPECT_TRUE(Eventually([] { return PageHas(kHealthyAgain); }, limit)) << Page("");
  }

  static constexpr std::chrono::seconds kHangLimit{90};
  static constexpr const char* kHealthy = "Status: Mutex=Y Service=Y Pipe=Y Pulse: ";
  static constexpr const char* kHealthyAgain = ": MutexOK=Y, PipeStatusOK=Y, ServiceOK=Y";
};

}  // namespace guardian
