#include "webstatus/ActivityLog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/FakeClock.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

class ActivityLogTest : public testing::Test {
 protected:
  std::vector<std::string> TakeSystemLog() { return std::exchange(FSystemLog, {}); }

  TFakeClock FClock;
  std::vector<std::string> FSystemLog;
  TActivityLog FLog{
      [this](std::string_view message, TSystemLogKind kind) {
        FSystemLog.push_back(std::to_string(static_cast<int>(kind)) + " " + std::string(message));
      },
      FClock};
};

TEST_F(ActivityLogTest, WritesEachKindInItsForm) {
  TDateTime lastSystemLogAt = 0;
  FLog.AddErrorEntry(1, 16, "bad", lastSystemLogAt);
  lastSystemLogAt = 0;
  FLog.AddWarningEntry(5, 2, "odd", lastSystemLogAt);
  FLog.AddInfoEntry(1, 16, "fine <&>");
  FLog.AddDetailEntry("detail");
  const std::string time = "<br>" + DateTimeToStr(FClock.Now());
  const std::string entries =
      time + "  ERROR: bad" + time + "  WARNING: odd" + time + "  INFO: fine &lt;&amp;&gt;";
  EXPECT_EQ(*FLog.ShortLog(), entries);
  EXPECT_EQ(*FLog.DetailedLog(), entries + "<br>detail");
  EXPECT_THAT(TakeSystemLog(), ElementsAre("1 bad", "2 odd", "4 fine <&>"));
}

TEST_F(ActivityLogTest, TellsTheSystemLogOfErrorsOnceInTenMinutesAndOfInformationAlways) {
  TDateTime lastSystemLogAt = 0;
  FLog.AddErrorEntry(1, 1, "a", lastSystemLogAt);
  EXPECT_THAT(TakeSystemLog(), ElementsAre("1 a"));
  FClock.Advance(milliseconds(599'000));
  FClock.SetWall(FClock.Now() + 1);
  FLog.AddWarningEntry(1, 1, "b", lastSystemLogAt);
  FLog.AddInfoEntry(1, 1, "i");
  EXPECT_THAT(TakeSystemLog(), ElementsAre("4 i"));
  FClock.Advance(milliseconds(1'001));
  FLog.AddWarningEntry(1, 1, "c", lastSystemLogAt);
  FLog.AddErrorEntry(1, 1, "d", lastSystemLogAt);
  EXPECT_THAT(TakeSystemLog(), ElementsAre("2 c"));
}

TEST(TrimActivityLogTest, DropsWholeEntriesFromTheStart) {
  struct TCase {
    const char* Name;
    std::string Log;
    std::string Trimmed;
  };
  const std::string full(kActivityLogLimit - 8, 'x');
  const std::string unbroken(kActivityLogLimit, 'y');
  const std::vector<TCase> cases = {
      {"exactly full", "<br>ab" + full + "zz", "<br>ab" + full + "zz"},
      {"one too many", "<br>ab" + full + "zzz", "ab" + full + "zzz"},
      {"entry by entry", "old<br>older<br>" + full + "12345678", full + "12345678"},
      {"no break, one too many", unbroken + "z", unbroken.substr(3) + "z"},
      {"no break, three too many", unbroken + "zzz", unbroken.substr(3) + "zzz"},
      {"no break, four too many", unbroken + "abcd", unbroken.substr(6) + "abcd"},
      {"break first, then none", "e<br>" + unbroken + "z", unbroken.substr(3) + "z"},
  };
  for (const TCase& c : cases) {
    SCOPED_TRACE(c.Name);
    std::string log = c.Log;
    TrimActivityLog(log);
    EXPECT_TRUE(log == c.Trimmed) << log.size() << " instead of " << c.Trimmed.size();
  }
}

}  // namespace
}  // namespace guardian
