#include "guardian/ServiceManager.h"

#include "guardian/NotifySocket.h"
#include "support/TestSupport.h"

namespace guardian {
namespace {

TEST(ServiceManagerTest, ReportsFourTimesInTheTimeOfItsOwnWatchdogAndAtLeastEachTenSeconds) {
  const std::tuple<const char*, const char*, int> cases[] = {
      {"", "", 10'000}, {"8000000", "", 2'000},   {"8000000", "1", 10'000},
      {"1", "", 100},   {"80000000", "", 10'000}, {"8000000x", "", 10'000}};
  const std::string notAPath =
      "NOTIFY_SOCKET is neither an absolute path nor an abstract name: x\n";
  for (const auto& [limit, pid, intervalMs] : cases) {
    ::setenv("NOTIFY_SOCKET", "x", 1);
    ::setenv("WATCHDOG_USEC", limit, 1);
    ::setenv("WATCHDOG_PID", pid, 1);
    testing::internal::CaptureStdout();
    const TServiceManager manager;
    const std::string wrong = "WATCHDOG_USEC is no number of microseconds: " + std::string(limit);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              (std::string(limit).ends_with("x") ? wrong + "\n" : "") + notAPath);
    EXPECT_EQ(manager.Interval().count(), intervalMs) << limit << pid;
    EXPECT_FALSE(manager.IsDue());
  }
}

TEST(ServiceManagerTest, IsToldAgainWhatItDidNotTakeAndIsFedWhileNothingStandsStill) {
  const TTempFolder folder;
  ::setenv("NOTIFY_SOCKET", std::string(108, '/').c_str(), 1);
  EXPECT_FALSE(TServiceManager().IsDue()) << "too long";
  ::setenv("WATCHDOG_PID", std::to_string(::getpid()).c_str(), 1);
  for (const std::string& name : {folder.Path("socket"), "@" + folder.Path("abstract")}) {
    const TFileDescriptor socket = NotifySocketAt(name);
    TFakeClock clock;
    ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
    ::setenv("WATCHDOG_USEC", "8000000", 1);
    TServiceManager manager(clock);
    EXPECT_FALSE(std::getenv("NOTIFY_SOCKET") || std::getenv("WATCHDOG_USEC"));
    const auto report = [&](int ms, const char* status, const char* standsStill) {
      clock.Advance(std::chrono::milliseconds(ms));
      if (manager.IsDue()) manager.Report(status, standsStill);
      return ReceivedNotice(socket);
    };
    manager.ExtendStart();
    for (int i = 0; i < 10'000; ++i) manager.ReportEnd();
    EXPECT_TRUE(report(0, "", "").starts_with("EXTEND_TIMEOUT_USEC=660000000\n"));
    while (!ReceivedNotice(socket).empty()) continue;
    EXPECT_EQ(report(2'000, "", ""), "READY=1\nSTATUS=\nWATCHDOG=1\n");
    EXPECT_EQ(report(1'999, "a", ""), "");
    EXPECT_EQ(report(1, "a", ""), "STATUS=a\nWATCHDOG=1\n");
    EXPECT_EQ(report(2'000, "a", "the test"), "");
    EXPECT_EQ(report(2'000, "a", ""), "WATCHDOG=1\n");
  }
}

}  // namespace
}  // namespace guardian
