#include "common/DiagnosticMessage.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/ErrorLogInFolder.h"
#include "support/FakeClock.h"

namespace guardian {
namespace {

TEST(DiagnosticMessageTest, AdmitsAnIdenticalMessageAgainAfterAnHour) {
  TMessageThrottle throttle;
  EXPECT_TRUE(throttle.Admit("a", 1'000));
  EXPECT_TRUE(throttle.Admit("b", 2'000));
  EXPECT_FALSE(throttle.Admit("a", 3'600'999));
  EXPECT_TRUE(throttle.Admit("a", 3'601'000));
  EXPECT_FALSE(throttle.Admit("a", 3'602'000));
  EXPECT_TRUE(throttle.Admit("b", 3'602'000));
}

TEST(DiagnosticMessageTest, ForgetsTheOldestOfTooMany) {
  TMessageThrottle throttle;
  for (std::size_t i = 0; i <= TMessageThrottle::kMaxRemembered; ++i) {
    EXPECT_TRUE(throttle.Admit(std::to_string(i), static_cast<std::int64_t>(i)));
  }
  EXPECT_FALSE(throttle.Admit("1", 300));
  EXPECT_TRUE(throttle.Admit("0", 300));
}

TEST(DiagnosticMessageTest, WritesAFailureOnceToTheErrorLog) {
  const TErrorLogInFolder log;
  TFakeClock clock;
  for (int i = 0; i < 2; ++i) {
    EXPECT_FALSE(Guarded("Once", clock, [] { throw std::runtime_error("no luck"); }));
  }
  EXPECT_EQ(log.Text(), "Once Exception: no luck\n");
}

}  // namespace
}  // namespace guardian
