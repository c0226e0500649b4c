#include "guardian/DaemonControl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/Exceptions.h"
#include "guardian/FakeShell.h"
#include "support/FakeClock.h"

namespace guardian {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

TEST(KillCommandTest, AlternatesAsItAlwaysDid) {
  struct TCase {
    std::int32_t Attempt;
    const char* WithPid;
    const char* WithoutPid;
  };
  const char* const kill9 = "kill -9 42";
  const char* const all = "killall VellumarkCL";
  const char* const all9 = "killall -9 VellumarkCL";
  const std::vector<TCase> cases = {
      {0, kill9, all},  {1, kill9, all9}, {2, kill9, all9},  {3, kill9, all},   {4, kill9, all},
      {5, kill9, all9}, {6, kill9, all9}, {7, kill9, all},   {10, kill9, all9}, {11, all, all},
      {12, kill9, all}, {13, all9, all9}, {14, kill9, all9}, {15, all, all},    {16, kill9, all},
      {17, all9, all9}, {19, all, all},   {21, all9, all9},
  };
  for (const TCase& c : cases) {
    EXPECT_EQ(KillCommand("42", c.Attempt), c.WithPid) << c.Attempt;
    EXPECT_EQ(KillCommand("", c.Attempt), c.WithoutPid) << c.Attempt;
  }
}

class DaemonControlTest : public testing::Test {
 protected:
  void DaemonRunsAs(const std::string& pid) {
    FShell.Answer(kPsWithColumns, {pid.empty() ? "" : pid + " VellumarkCL", {}});
    FProcess.Check(TProcessCheck::Force);
    FShell.TakeCommands();
  }
  TShell Shell() {
    return [this](const std::string& line, int timeoutSec) {
      return FShell.Run(line, timeoutSec).Output;
    };
  }

  TFakeClock FClock;
  TFakeShell FShell;
  TActivityLog FLog{[](std::string_view, TSystemLogKind) {}, FClock};
  TDaemonProcess FProcess{Shell(), FClock};
  TDaemonControl FControl{Shell(), [] { return std::string("/a b/VellumarkCL"); }, FProcess, FLog,
                          FClock};
  const std::string FInfo = "<br>" + DateTimeToStr(FClock.Now()) + "  INFO: ";
};

TEST_F(DaemonControlTest, StopsWithThePathAsItStands) {
  FShell.Answer("/a b/VellumarkCL stop", {"not <found>", {}});
  FControl.StopDaemon();
  EXPECT_THAT(FShell.TakeCommands(), ElementsAre("/a b/VellumarkCL stop @20"));
  EXPECT_EQ(*FLog.DetailedLog(),
            "<br>Trying to stop the service." + FInfo +
                "Trying to stop the service normally."
                "<br>Executed /a b/VellumarkCL stop, Result: not &lt;found&gt;");
}

TEST_F(DaemonControlTest, TerminatesOnlyAKnownPid) {
  FControl.TerminateDaemon();
  EXPECT_THAT(FShell.TakeCommands(), testing::IsEmpty());
  EXPECT_TRUE(FLog.DetailedLog()->ends_with("<br>No PID known to terminate"));
  DaemonRunsAs("42");
  FControl.TerminateDaemon();
  EXPECT_THAT(FShell.TakeCommands(), ElementsAre("kill 42 @20"));
  EXPECT_TRUE(FLog.DetailedLog()->ends_with("<br>Trying to terminate the service." + FInfo +
                                            "Trying to terminate the service."
                                            "<br>Executed kill 42, Result: "));
}

TEST_F(DaemonControlTest, KillsByNameAtOnceWhenThePidIsGone) {
  for (const char* answer : {"sh: kill: (42) - No such process", "NO SUCH PROCESS"}) {
    DaemonRunsAs("42");
    FShell.Answer("kill -9 42", {answer, {}});
    FControl.KillDaemon(0);
    EXPECT_THAT(FShell.TakeCommands(), ElementsAre("kill -9 42 @20", "killall VellumarkCL @20"));
    EXPECT_EQ(FProcess.Pid(), "");
  }
  DaemonRunsAs("42");
  FShell.Answer("kill -9 42", {"Operation not permitted", {}});
  FControl.KillDaemon(0);
  EXPECT_THAT(FShell.TakeCommands(), ElementsAre("kill -9 42 @20"));
  EXPECT_EQ(FProcess.Pid(), "42");
  FShell.Answer("killall VellumarkCL", {"no such process", {}});
  FControl.KillDaemon(11);
  EXPECT_THAT(FShell.TakeCommands(),
              ElementsAre("killall VellumarkCL @20", "killall VellumarkCL @20"))
      << "the answer of killall names no process id either";
}

TEST_F(DaemonControlTest, PassesOnThatThePathCannotBeFound) {
  TDaemonControl control(
      Shell(), []() -> std::string { throw KZException("no path"); }, FProcess, FLog, FClock);
  EXPECT_THROW(control.StartDaemon(), KZException);
  EXPECT_THROW(control.StopDaemon(), KZException);
}

}  // namespace
}  // namespace guardian
