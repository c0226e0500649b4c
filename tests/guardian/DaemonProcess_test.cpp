#include "guardian/DaemonProcess.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "guardian/FakeShell.h"
#include "support/FakeClock.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string kColumnsRun = std::string(kPsWithColumns) + " @5";
const std::string kPlainRun = std::string(kPlainPs) + " @5";

TEST(ProcessListingTest, FindsThePidInTheFirstLineThatCounts) {
  struct TCase {
    const char* Listing;
    const char* Pid;
  };
  const std::vector<TCase> cases = {
      {"root  4711  1  0 06:00 ?  00:00:01 /opt/VellumarkCL start\n", "4711"},
      {"admin2  4711  1 /opt/VellumarkCL start\n", "2"},
      {"", ""},
      {"root 12 1 /opt/vellumarkcl start", ""},
      {"root 12 1 /opt/VellumarkCL /RUN profile\nroot 34 1 /opt/VellumarkCL start", "34"},
      {"root 12 1 [VellumarkCL] <defunct>\nroot 34 1 /x/VellumarkCL", "34"},
      {"root 12 1 [VellumarkCL]", ""},
      {"root 12 1 grep \"x\" VellumarkCL", ""},
      {"root 12 1 grep -e [V]vellumarkCL VellumarkCL", ""},
      {"VellumarkCL without digits\nroot 34 1 /x/VellumarkCL", ""},
      {"\n\n  99999 VellumarkCL", "99999"},
      {"root 77\xff\x01 VellumarkCL", "77"},
  };
  for (const TCase& c : cases) EXPECT_EQ(DaemonPidIn(c.Listing), c.Pid) << c.Listing;
}

class DaemonProcessTest : public testing::Test {
 protected:
  void Listing(const std::string& text) { FShell.Answer(kPsWithColumns, {text, {}}); }
  bool Check(TProcessCheck mode) { return FProcess.Check(mode); }

  TFakeClock FClock;
  TFakeShell FShell;
  TDaemonProcess FProcess{
      [this](const std::string& line, int timeout) { return FShell.Run(line, timeout).Output; },
      FClock};
};

TEST_F(DaemonProcessTest, KeepsItsAnswerForOneMinuteUnlessForced) {
  Listing("root 42 VellumarkCL");
  EXPECT_TRUE(Check(TProcessCheck::Cached));
  EXPECT_EQ(FProcess.Pid(), "42");
  EXPECT_THAT(FShell.TakeCommands(), ElementsAre(kColumnsRun));

  Listing("");
  FClock.Advance(milliseconds(59'999));
  EXPECT_TRUE(Check(TProcessCheck::Cached));
  EXPECT_THAT(FShell.TakeCommands(), IsEmpty());
  FClock.Advance(milliseconds(2));
  EXPECT_FALSE(Check(TProcessCheck::Cached));
  EXPECT_EQ(FProcess.Pid(), "");

  Listing("root 43 VellumarkCL");
  EXPECT_FALSE(Check(TProcessCheck::Cached));
  EXPECT_TRUE(Check(TProcessCheck::Force));
  Listing("root 44 VellumarkCL");
  FProcess.ForgetCheck();
  EXPECT_TRUE(Check(TProcessCheck::Cached));
  EXPECT_EQ(FProcess.Pid(), "44");
}

TEST_F(DaemonProcessTest, IsNotMovedByTheWallClock) {
  Listing("root 42 VellumarkCL");
  EXPECT_TRUE(Check(TProcessCheck::Cached));
  FShell.TakeCommands();
  FClock.SetWall(FClock.Now() + 1);
  EXPECT_TRUE(Check(TProcessCheck::Cached));
  EXPECT_THAT(FShell.TakeCommands(), IsEmpty());
  FClock.SetWall(FClock.Now() - 2);
  FClock.Advance(milliseconds(60'001));
  EXPECT_TRUE(Check(TProcessCheck::Cached));
  EXPECT_THAT(FShell.TakeCommands(), ElementsAre(kColumnsRun));
}

TEST_F(DaemonProcessTest, UsesPlainPsForGoodOnceColumnsAreRefused) {
  for (const char* error : {"ps: unrecognized option '--columns'", "ps: invalid option -- '-'",
                            "error: unsupported option"}) {
    TDaemonProcess process(
        [this](const std::string& line, int timeout) { return FShell.Run(line, timeout).Output; },
        FClock);
    Listing(error);
    FShell.Answer(kPlainPs, {"7 VellumarkCL", {}});
    EXPECT_TRUE(process.Check(TProcessCheck::Force));
    EXPECT_THAT(FShell.TakeCommands(), ElementsAre(kColumnsRun, kPlainRun)) << error;
    EXPECT_TRUE(process.Check(TProcessCheck::Force));
    EXPECT_THAT(FShell.TakeCommands(), ElementsAre(kPlainRun)) << error;
    EXPECT_EQ(*process.LastListing(), "7 VellumarkCL");
  }
}

TEST_F(DaemonProcessTest, AsksAgainPlainlyWhenTheAnswerIsExactlyZero) {
  Listing("0");
  EXPECT_FALSE(Check(TProcessCheck::Force));
  EXPECT_THAT(FShell.TakeCommands(), ElementsAre(kColumnsRun, kPlainRun));
  Listing("0\n");
  EXPECT_FALSE(Check(TProcessCheck::Force));
  EXPECT_THAT(FShell.TakeCommands(), ElementsAre(kColumnsRun));
}

}  // namespace
}  // namespace guardian
