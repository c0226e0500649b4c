#include "webstatus/MachinePages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "webstatus/StatusPages.h"

namespace guardian {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// As it stands after some restarts.
TGuardianStatus BusyStatus() {
  TGuardianStatus status;
  status.DaemonPath = "/opt/VellumarkCL";
  status.DaemonPathExists = true;
  status.MutexPath = "/m/mutex";
  status.GotPaths = true;
  TWatchdogReading& seen = status.Watchdog;
  seen.MutexOK = true;
  seen.ServiceOK = true;
  seen.CheckAgeSec = 2.5;
  seen.Pid = "4711";
  seen.Pulse = 99;
  seen.PulseAgeSec = 61.25;
  seen.Rounds = 360;
  seen.Restarts = 2;
  seen.RestartAttempts = 1;
  seen.PipeFailures = 6;
  seen.Actions[0] = {3, 0.5};
  seen.UptimeSec = 3600;
  return status;
}

TEST(StatusJsonTest, TellsTheWholeState) {
  EXPECT_EQ(StatusJson(BusyStatus(), 8899),
            "{\"version\":\"1.50\",\"build\":10,\"pid\":" + std::to_string(::getpid()) +
                ",\"port\":8899,\"uptime_seconds\":3600.000,"
                "\"checks\":{\"mutex\":true,\"pipe\":false,\"service\":true,\"age_seconds\":2.500},"
                "\"daemon\":{\"pid\":\"4711\",\"path\":\"/opt/VellumarkCL\",\"path_exists\":true,"
                "\"mutex_path\":\"/m/mutex\",\"paths_received\":true},"
                "\"pulse\":{\"value\":99,\"age_seconds\":61.250},"
                "\"counters\":{\"rounds\":360,\"restarts\":2,\"restart_attempts\":1,"
                "\"mutex_failures\":0,\"pipe_failures\":6},"
                "\"actions\":{\"start\":{\"total\":3,\"last_age_seconds\":0.500},"
                "\"stop\":{\"total\":0,\"last_age_seconds\":null},"
                "\"terminate\":{\"total\":0,\"last_age_seconds\":null},"
                "\"kill\":{\"total\":0,\"last_age_seconds\":null}}}\n");
  EXPECT_EQ(StatusJson({}, {}), "{\"version\":\"1.50\",\"build\":10,\"pid\":" +
                                    std::to_string(::getpid()) + ",\"port\":null}\n");
}

TEST(StatusJsonTest, EscapesWhatComesFromOutside) {
  struct TCase {
    std::string Path;
    std::string Json;
  };
  const TCase cases[] = {
      {"a\"b\\c", R"(a\"b\\c)"},
      {std::string("nul\0\n\x1f", 6), R"(nul\u0000\u000a\u001f)"},
      {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"},
      {"\xff\xc3", R"(\ufffd\ufffd)"},                      // No sequence, and a cut one.
      {"\xc0\xaf", R"(\ufffd\ufffd)"},                      // Overlong.
      {"\xed\xa0\x80", R"(\ufffd\ufffd\ufffd)"},            // A surrogate.
      {"\xf4\x90\x80\x80", R"(\ufffd\ufffd\ufffd\ufffd)"},  // Above the last code point.
      {"\xe2\x82x", R"(\ufffd\ufffdx)"},
  };
  for (const TCase& c : cases) {
    TGuardianStatus status;
    status.DaemonPath = c.Path;
    EXPECT_THAT(StatusJson(status, {}), HasSubstr("\"path\":\"" + c.Json + "\",")) << c.Json;
  }
}

TEST(MachinePagesTest, AreAnsweredWithTheirTypes) {
  THttpRequest request;
  request.Method = "GET";
  request.Path = "/status.json";
  EXPECT_EQ(BuildPage(request, {}).ContentType, "application/json");
  request.Path = "/metrics";
  const THttpResponse metrics = BuildPage(request, {});
  EXPECT_THAT(metrics.ContentType, StartsWith("application/openmetrics-text; version=1.0.0"));
  EXPECT_EQ(metrics.Body, OpenMetrics({}));
  EXPECT_THAT(OpenMetrics(BusyStatus()),
              HasSubstr("\nvellumark_guardian_actions_total{action=\"start\"} 3\n"));
  EXPECT_THAT(OpenMetrics(BusyStatus()), Not(HasSubstr("action_age_seconds{action=\"stop\"}")));
}

}  // namespace
}  // namespace guardian
