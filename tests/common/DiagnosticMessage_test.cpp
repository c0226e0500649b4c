#include "common/DiagnosticMessage.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

#include "common/Exceptions.h"
#include "support/ErrorLogInFolder.h"
#include "support/FakeClock.h"
#include "support/ThrownMessage.h"

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

TEST(DiagnosticMessageTest, IsWrittenOnceToTheErrorLogElseToTheDebugOutput) {
  TFakeClock clock;
  const auto write = [&](const std::string& text) {
    EXPECT_FALSE(Guarded("Test", clock, [&] { throw std::runtime_error(text); }));
  };
  testing::internal::CaptureStderr();
  for (int i = 0; i < 2; ++i) write("no log");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "Test Exception: no log\n");
  const TErrorLogInFolder log;
  for (int i = 0; i < 2; ++i) write("a log");
  EXPECT_EQ(log.Text(), "2026-11-21 06:00:00 Test Exception: a log\n");
  EXPECT_TRUE(Guarded("Test", clock, [] {}));
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

class ESpecial : public SoftException {
 public:
  using SoftException::SoftException;
};

// The address to which it returns is the second one of the stack if the first one is in here.
[[gnu::noinline]] KZException RaisedHere(const void*& caller) {
  caller = __builtin_return_address(0);
  return KZException("raised");
}

TEST(ExceptionsTest, TellTheirClassAndMessageWhateverTheyAre) {
  const ESpecial special("text");
  const KZException& base = special;
  EXPECT_EQ(base.ClassName(), "ESpecial");
  EXPECT_EQ(ExceptionClassName(special), "ESpecial");
  EXPECT_EQ(ExceptionClassName(std::runtime_error("")), "std::runtime_error");
  EXPECT_EQ(Demangled("no mangled name"), "no mangled name");
  EXPECT_EQ(ESystemError("open", "/a/b", ENOENT).Message(),
            "open /a/b: No such file or directory (errno 2)");
  EXPECT_EQ(ThrownMessage([] { throw std::out_of_range("range"); }), "range");
  EXPECT_EQ(ThrownMessage([] { throw 5; }), "unknown exception");
}

TEST(ExceptionsTest, KnowWhereTheyWereRaised) {
  const void* caller = nullptr;
  const KZException error = RaisedHere(caller);
  ASSERT_GE(error.Stack().size(), 2U);
  EXPECT_EQ(error.Address(), error.Stack()[0]);
  EXPECT_EQ(error.Stack()[1], caller);
}

}  // namespace
}  // namespace guardian
