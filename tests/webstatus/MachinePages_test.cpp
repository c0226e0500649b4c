#include "webstatus/MachinePages.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include "common/Texts.h"

namespace guardian {
namespace {

// As it stands after some restarts, each number a different one.
TGuardianStatus BusyStatus() {
  TGuardianStatus status;
  status.DaemonPath = "/opt/VellumarkCL";
  status.DaemonPathExists = true;
  status.MutexPath = "/m/mutex";
  status.GotPaths = true;
  status.Watchdog = {.MutexOK = true,
                     .PipeOK = false,
                     .ServiceOK = true,
                     .CheckAgeSec = 2.5,
                     .Pid = "4711",
                     .Pulse = 99,
                     .PulseAgeSec = 61.25,
                     .Rounds = 360,
                     .Restarts = 2,
                     .RestartAttempts = 1,
                     .MutexFailures = 7,
                     .PipeFailures = 6,
                     .Actions = {{{3, 0.5}, {4, {}}, {5, 1.0}, {8, 9.0}}},
                     .UptimeSec = 3600};
  return status;
}

TEST(StatusJsonTest, TellsTheWholeState) {
  const std::string pid = std::to_string(::getpid());
  EXPECT_EQ(StatusJson(BusyStatus(), 8899),
            "{\"version\":\"1.50\",\"build\":10,\"pid\":" + pid +
                ",\"port\":8899,\"uptime_seconds\":3600.000,"
                "\"checks\":{\"mutex\":true,\"pipe\":false,\"service\":true,\"age_seconds\":2.500},"
                "\"daemon\":{\"pid\":\"4711\",\"path\":\"/opt/VellumarkCL\",\"path_exists\":true,"
                "\"mutex_path\":\"/m/mutex\",\"paths_received\":true},"
                "\"pulse\":{\"value\":99,\"age_seconds\":61.250},"
                "\"counters\":{\"rounds\":360,\"restarts\":2,\"restart_attempts\":1,"
                "\"mutex_failures\":7,\"pipe_failures\":6},"
                "\"actions\":{\"start\":{\"total\":3,\"last_age_seconds\":0.500},"
                "\"stop\":{\"total\":4,\"last_age_seconds\":null},"
                "\"terminate\":{\"total\":5,\"last_age_seconds\":1.000},"
                "\"kill\":{\"total\":8,\"last_age_seconds\":9.000}}}\n");
  EXPECT_EQ(StatusJson({}, {}),
            "{\"version\":\"1.50\",\"build\":10,\"pid\":" + pid + ",\"port\":null}\n");
  TGuardianStatus failed;
  failed.GotPaths = failed.GetPathsError = true;
  EXPECT_THAT(StatusJson(failed, {}), testing::HasSubstr("{\"pid\":null,"));
  EXPECT_THAT(StatusJson(failed, {}), testing::HasSubstr("\"paths_received\":false}"));
}

TEST(StatusJsonTest, EscapesWhatComesFromOutside) {
  const std::pair<std::string, std::string> cases[] = {
      {"a\"b\\c", R"(a\"b\\c)"},
      {std::string("nul\0\n\x1f\x20\x7f", 8), "nul\\u0000\\u000a\\u001f \x7f"},
      {"\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf", "\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf"},
      {"\xf0\x90\x80\x80\xf4\x8f\xbf\xbf", "\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"},
      {"\xed\x9f\xbf\xee\x80\x80", "\xed\x9f\xbf\xee\x80\x80"},  // Beside the surrogates.
      {"\xff\x80\xc3", R"(\ufffd\ufffd\ufffd)"},                 // No sequence, and a cut one.
      {"\xc1\xbf", R"(\ufffd\ufffd)"},                           // Overlong, as are the next two.
      {"\xe0\x9f\xbf", R"(\ufffd\ufffd\ufffd)"},
      {"\xf0\x8f\xbf\xbf", R"(\ufffd\ufffd\ufffd\ufffd)"},
      {"\xed\xa0\x80", R"(\ufffd\ufffd\ufffd)"},            // A surrogate.
      {"\xf4\x90\x80\x80", R"(\ufffd\ufffd\ufffd\ufffd)"},  // Above the last character.
      {"\xe2\x82x", R"(\ufffd\ufffdx)"},
  };
  for (const auto& [path, json] : cases) {
    TGuardianStatus status;
    status.DaemonPath = path;
    EXPECT_THAT(StatusJson(status, {}), testing::HasSubstr("\"path\":\"" + json + "\",")) << json;
  }
}

// The metrics without their help, and without what all names begin with.
std::string Samples(const std::optional<TGuardianStatus>& status) {
  std::string samples;
  for (const std::string_view line : Split(OpenMetrics(status), '\n')) {
    if (!line.starts_with("# HELP ")) samples.append(line).append(";");
  }
  return ReplaceAll(samples, "vellumark_guardian_", "");
}

TEST(OpenMetricsTest, TellTheWholeState) {
  const std::string build = "# TYPE build info;build_info{version=\"1.50\",build=\"10\"} 1;";
  EXPECT_EQ(Samples({}), build + "# EOF;;");
  EXPECT_EQ(
      Samples(BusyStatus()),
      build +
          "# TYPE uptime_seconds gauge;# UNIT uptime_seconds seconds;uptime_seconds 3600.000;"
          "# TYPE check_ok gauge;check_ok{check=\"mutex\"} 1;check_ok{check=\"pipe\"} 0;"
          "check_ok{check=\"service\"} 1;"
          "# TYPE failures gauge;failures{check=\"mutex\"} 7;failures{check=\"pipe\"} 6;"
          "# TYPE check_age_seconds gauge;# UNIT check_age_seconds seconds;check_age_seconds 2.500;"
          "# TYPE pulse gauge;pulse 99;"
          "# TYPE pulse_age_seconds gauge;# UNIT pulse_age_seconds seconds;pulse_age_seconds "
          "61.250;"
          "# TYPE rounds counter;rounds_total 360;# TYPE restarts counter;restarts_total 2;"
          "# TYPE restart_attempts gauge;restart_attempts 1;"
          "# TYPE actions counter;actions_total{action=\"start\"} 3;actions_total{action=\"stop\"} "
          "4;"
          "actions_total{action=\"terminate\"} 5;actions_total{action=\"kill\"} 8;"
          "# TYPE action_age_seconds gauge;# UNIT action_age_seconds seconds;"
          "action_age_seconds{action=\"start\"} 0.500;action_age_seconds{action=\"terminate\"} "
          "1.000;"
          "action_age_seconds{action=\"kill\"} 9.000;# EOF;;");
}

}  // namespace
}  // namespace guardian
