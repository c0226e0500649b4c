#include "common/Clock.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <array>
#include <clocale>
#include <string>

#include "support/FakeClock.h"

namespace guardian {
namespace {

constexpr double kMillisecond = 1.0 / 86'400'000;

TEST(TClockTest, KeepsSteadyInstantsWhenTheWallClockSteps) {
  TFakeClock clock;
  const TDateTime steady = clock.SteadyNow();
  const TDateTime wall = clock.Now();
  EXPECT_GT(steady - 1000 * kDay, 0) << "now minus some days stays positive";
  clock.Advance(std::chrono::minutes(3));
  clock.SetWall(wall + 7 * kDay);
  EXPECT_NEAR(clock.SteadyNow() - steady, 3 * kMinute, kMillisecond);
  EXPECT_NEAR(clock.ToWallTime(steady), wall + 7 * kDay - 3 * kMinute, kMillisecond);
  EXPECT_EQ(clock.ToWallTime(0), 0) << "zero means never";
}

TEST(TClockTest, ReadsLocalWallTimeAndATickCountThatNeverStepsBack) {
  const char* zone = ::getenv("TZ");
  const std::string before = zone == nullptr ? "" : zone;
  ::setenv("TZ", "XYZ-3:30", 1);
  ::tzset();
  const TDateTime difference = SystemClock().Now() - SystemClock().UtcNow();
  zone == nullptr ? ::unsetenv("TZ") : ::setenv("TZ", before.c_str(), 1);
  ::tzset();
  EXPECT_NEAR(difference, 3.5 / 24, kMinute);
  EXPECT_NEAR((SystemClock().UtcNow() - 25'569) * 86'400, static_cast<double>(::time(nullptr)), 60);
  const std::int64_t tick = SystemClock().TickCount();
  SystemClock().Sleep(std::chrono::milliseconds(20));
  EXPECT_GE(SystemTickCount() - tick, 20);
}

TEST(TClockTest, ShowsDateTimesWithoutAmbiguityInThePlainLocales) {
  struct TCase {
    TDateTime Value;
    std::string Text;
  };
  const std::array<TCase, 5> cases = {{{46347.0 + 22'425.0 / 86'400, "2026-11-21 06:13:45"},
                                       {0.0, "1899-12-30 00:00:00"},
                                       {36525.0, "1999-12-31 00:00:00"},
                                       {46347.0 - 0.4 * kMillisecond, "2026-11-21 00:00:00"},
                                       {46347.0 - kMillisecond, "2026-11-20 23:59:59"}}};
  for (const char* locale : {"C", "POSIX", "C.UTF-8"}) {
    if (std::setlocale(LC_TIME, locale) == nullptr) continue;
    for (const TCase& each : cases) EXPECT_EQ(DateTimeToStr(each.Value), each.Text) << locale;
  }
  std::setlocale(LC_TIME, "C");
  EXPECT_EQ(TimeOfDayToStr(cases[0].Value), "06:13:45");
}

}  // namespace
}  // namespace guardian
