#include "webstatus/ActivityLog.h"

#include <gmock/gmock.h>

#include <random>

#include "common/Texts.h"
#include "support/Crew.h"
#include "support/FakeClock.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

constexpr std::size_t kLimit = 131'072;

class ActivityLogTest : public testing::Test {
 protected:
  auto TakeSystemLog() { return std::exchange(FSystemLog, {}); }
  std::string Entry(const std::string& text) const {
    return "<br>" + DateTimeToStr(FClock.Now()) + text;
  }

  TFakeClock FClock;
  std::vector<std::string> FSystemLog;
  TActivityLog FLog{
      [this](std::string_view message, TSystemLogKind kind) {
        FSystemLog.push_back(std::to_string(static_cast<int>(kind)) + " " + std::string(message));
      },
      FClock};
};

TEST_F(ActivityLogTest, WritesEachKindInItsForm) {
  TDateTime errorAt = 0;
  TDateTime warningAt = 0;
  FLog.AddErrorEntry(1, 16, "bad", errorAt);
  FLog.AddWarningEntry(5, 2, "odd", warningAt);
  FLog.AddInfoEntry(1, 16, "fine <&>");
  FLog.AddDetailEntry("<i>detail");
  EXPECT_THAT(TakeSystemLog(), ElementsAre("1 bad", "2 odd", "4 fine <&>"));
  const std::string entries =
      Entry("  ERROR: bad") + Entry("  WARNING: odd") + Entry("  INFO: fine &lt;&amp;&gt;");
  EXPECT_EQ(*FLog.ShortLog(), entries);
  EXPECT_EQ(*FLog.DetailedLog(), entries + "<br><i>detail");
  // Errors and warnings once in ten minutes of steady time, the rest always.
  FClock.SetWall(FClock.Now() + 1);
  FClock.Advance(milliseconds(599'999));
  FLog.AddErrorEntry(1, 16, "again", errorAt);
  FLog.AddInfoEntry(1, 16, "again");
  EXPECT_THAT(TakeSystemLog(), ElementsAre("4 again"));
  FClock.Advance(milliseconds(2));
  FLog.AddWarningEntry(5, 2, "more", errorAt);
  FLog.AddErrorEntry(1, 16, "no more", errorAt);
  FLog.AddErrorEntry(1, 16, "other", warningAt);
  EXPECT_THAT(TakeSystemLog(), ElementsAre("2 more", "1 other"));
}

// Short entries, entries that end below, at and above the limit, and details with many breaks.
TEST_F(ActivityLogTest, DropsWholeEntriesFromTheStart) {
  std::mt19937 random(20'261'121);  // NOLINT(cert-msc51-cpp): the same steps in each run
  std::string shortLog;
  std::string detailedLog;
  const auto add = [](std::string& log, const std::string& entry) {
    log += entry;
    while (log.size() > kLimit) {
      const std::size_t entryEnd = log.find("<br>");
      log.erase(0, entryEnd == std::string::npos ? 3 : entryEnd + 4);
    }
  };
  for (int step = 0; step < 400; ++step) {
    std::string text(random() % 3 == 0 ? random() % 9000 : random() % 30, 'x');
    const std::size_t used = detailedLog.size() + 4;
    if (random() % 8 == 0 && used + 1 < kLimit) text.assign(kLimit - used - 1 + random() % 3, 'y');
    if (random() % 40 == 0) text.assign(kLimit - 10 + random() % 20, 'z');
    if (random() % 4 == 0) text.insert(text.size() / 2, "<br><br>");
    if (random() % 2 == 0) {
      FLog.AddDetailEntry(text);
      add(detailedLog, "<br>" + text);
    } else {
      FLog.AddInfoEntry(1, 1, text);
      for (auto* log : {&shortLog, &detailedLog}) add(*log, Entry("  INFO: ") + HtmlEscape(text));
    }
    ASSERT_TRUE(*FLog.ShortLog() == shortLog && *FLog.DetailedLog() == detailedLog) << step;
  }
}

TEST_F(ActivityLogTest, LosesNoEntryOfSeveralThreads) {
  TCrew(2, [&](int) {
    for (int i = 0; i < 4000; ++i) FLog.AddDetailEntry("x");
  }).Join();
  EXPECT_EQ(FLog.DetailedLog()->size(), 2 * 4000 * 5);
}

}  // namespace
}  // namespace guardian
