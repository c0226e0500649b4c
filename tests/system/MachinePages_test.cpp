#include "system/GuardianFixture.h"

namespace guardian {
namespace {

using MachinePagesSystemTest = GuardianSystemTest;

// Reads both pages as programs do, and prints what they agree on.
constexpr const char* kParser = R"(
import json, sys
from prometheus_client.openmetrics.parser import text_string_to_metric_families as parse
status = json.load(open(sys.argv[1]))
metrics = {(sample.name.removeprefix("vellumark_guardian_"), *sample.labels.values()): sample.value
           for family in parse(open(sys.argv[2]).read()) for sample in family.samples}
assert metrics["build_info", status["version"], str(status["build"])] == 1
for name in "mutex", "pipe", "service":
    assert metrics["check_ok", name] == status["checks"][name], name
    print(name, status["checks"][name])
for name, action in status["actions"].items():
    assert metrics["actions_total", name] == action["total"], name
    print(name, action["total"])
print("pid", status["daemon"]["pid"])
)";

TEST_F(MachinePagesSystemTest, TellTheSameToTheirParsersAndFollowARestart) {
  StartHealthy();
  const pid_t before = FInstallation.DaemonPid();
  ASSERT_TRUE(FInstallation.KillDaemon());
  ExpectAnotherDaemon(before);
  const TTempFolder& folder = FInstallation.Folder();
  const std::string expected =
      "mutex True\npipe True\nservice True\nstart 1\nstop 0\nterminate 0\nkill 0\npid " +
      std::to_string(FInstallation.DaemonPid()) + "\n";
  std::string parsed;
  EXPECT_TRUE(Eventually([&] {
    folder.Write("status.json", Page("status.json"));
    folder.Write("metrics", Page("metrics"));
    TProgram parser(
        {"/usr/bin/python3", "-c", kParser, folder.Path("status.json"), folder.Path("metrics")});
    (void)parser.Wait();
    parsed = parser.Output();
    return parsed == expected;
  })) << parsed;
}

}  // namespace
}  // namespace guardian
