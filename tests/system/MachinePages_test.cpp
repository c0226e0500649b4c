#include <gmock/gmock.h>

#include <string>

#include "system/EscalationFixture.h"

namespace guardian {
namespace {

using testing::HasSubstr;

class MachinePagesSystemTest : public EscalationTest {
 protected:
  // What programs that read such pages make of the two as they stand now.
  std::string Parsed() {
    FFolder.Write("status.json", Page("status.json"));
    FFolder.Write("metrics", Page("metrics"));
    TProgram parser({"/usr/bin/python3", PARSE_MACHINE_PAGES, FFolder.Path("status.json"),
                     FFolder.Path("metrics")});
    FParserExit = parser.Wait();
    return parser.Output();
  }

  int FParserExit = 0;
};

TEST_F(MachinePagesSystemTest, TellTheSameToTheirParsersAndFollowARestart) {
  StartHealthy();
  ASSERT_TRUE(Eventually([] { return PageHas("Pulse change detected"); }));
  const std::string healthy = Parsed();
  if (FParserExit == 77) GTEST_SKIP() << healthy;
  ASSERT_EQ(FParserExit, 0) << healthy;
  EXPECT_THAT(healthy, HasSubstr("checks mutex=1 pipe=1 service=1\n"));
  EXPECT_THAT(healthy, HasSubstr("pid " + std::to_string(DaemonPid()) + "\n"));
  EXPECT_THAT(healthy, HasSubstr("actions start=0 stop=0 terminate=0 kill=0\n"));

  const pid_t before = DaemonPid();
  KillDaemon();
  ASSERT_TRUE(AnotherDaemonRuns(before));
  ASSERT_TRUE(Eventually([&] { return PageHas("<br>Executed " + DaemonPath() + " start"); }));
  ASSERT_TRUE(Eventually([&] {
    return Parsed().find("actions start=1 stop=0 terminate=0 kill=0\n") != std::string::npos;
  })) << Parsed();
  EXPECT_EQ(FParserExit, 0);
}

}  // namespace
}  // namespace guardian
