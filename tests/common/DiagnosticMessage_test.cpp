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
  for (std::size_t i = 0; i <= 256; ++i) {
    EXPECT_TRUE(throttle.Admit(std::to_string(i), static_cast<std::int64_t>(i)));
  }
  EXPECT_FALSE(throttle.Admit("1", 300));
  EXPECT_TRUE(throttle.Admit("0", 300));
}

TEST(DiagnosticMessageTest, WritesALineOnceToTheErrorLogElseToTheDebugOutput) {
  TFakeClock clock;
  const auto write = [&](const std::string& text) {
    for (int i = 0; i < 2; ++i) {
      EXPECT_FALSE(Guarded("Plain", clock, [&] { throw std::runtime_error(text); }));
      DatedDiagnostic("dated " + text, clock);
    }
  };
  testing::internal::CaptureStderr();
  write("without a log");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Plain Exception: without a log\ndated without a log\n");
  const TErrorLogInFolder log;
  EXPECT_TRUE(Guarded("Plain", clock, [] {}));
  write("with a log");
  EXPECT_EQ(log.Text(), "Plain Exception: with a log\n2026-11-21 06:00:00 dated with a log\n");
}

TEST(ErrorLogTest, GoesOnInItsFileAndInNoOther) {
  const TErrorLogInFolder log;
  const std::string file = log.Folder().Path("error.log");
  ErrorLog().WriteLine("one");
  EXPECT_TRUE(ErrorLog().Reopen());
  ErrorLog().WriteLine("two");
  ErrorLog().Close();
  EXPECT_TRUE(ErrorLog().Reopen()) << "while closed there is nothing to do";
  EXPECT_FALSE(ErrorLog().Enabled());
  ErrorLog().WriteLine("dropped");
  EXPECT_TRUE(ErrorLog().Open(file));
  ErrorLog().WriteLine("three");
  EXPECT_EQ(log.Text(), "one\ntwo\nthree\n");
  std::filesystem::remove(file);
  EXPECT_FALSE(ErrorLog().Reopen()) << "a file that is gone is not made anew";
  EXPECT_FALSE(ErrorLog().Enabled());
}

}  // namespace
}  // namespace guardian
