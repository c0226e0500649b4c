#include "common/DiagnosticMessage.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/ErrorLogInFolder.h"
#include "support/FakeClock.h"
#include "support/ThrownMessage.h"

namespace guardian {
namespace {

TEST(DiagnosticMessageTest, AdmitsAgainAfterAnHourOrAmongTooMany) {
  TMessageThrottle throttle;
  for (int i = 0; i < 256; ++i) EXPECT_TRUE(throttle.Admit(std::to_string(i), 1'000 + i));
  EXPECT_FALSE(throttle.Admit("0", 3'600'999));
  EXPECT_TRUE(throttle.Admit("0", 3'601'000));
  EXPECT_FALSE(throttle.Admit("1", 3'601'000));
  EXPECT_TRUE(throttle.Admit("256", 3'601'000)) << "the oldest is forgotten";
  EXPECT_FALSE(throttle.Admit("2", 3'601'000));
  EXPECT_TRUE(throttle.Admit("1", 3'601'000));
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
  ErrorLog().WriteLine("one");
  EXPECT_TRUE(ErrorLog().Reopen());
  ErrorLog().WriteLine("two");
  EXPECT_EQ(log.Text(), "one\ntwo\n");
  std::filesystem::remove(log.Folder().Path("error.log"));
  EXPECT_FALSE(ErrorLog().Reopen()) << "a file that is gone is not made anew";
  EXPECT_FALSE(ErrorLog().Enabled());
  EXPECT_TRUE(ErrorLog().Reopen()) << "while closed there is nothing to do";
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

TEST(ExceptionsTest, TellTheirClassMessageAndOriginWhateverTheyAre) {
  const void* caller = nullptr;
  const KZException raised = RaisedHere(caller);
  ASSERT_GE(raised.Stack().size(), 2U);
  EXPECT_EQ(raised.Address(), raised.Stack()[0]);
  EXPECT_EQ(raised.Stack()[1], caller);
  EXPECT_EQ(ExceptionClassName(ESpecial("text")), "ESpecial");
  EXPECT_EQ(ExceptionClassName(std::runtime_error("")), "std::runtime_error");
  EXPECT_EQ(Demangled("no mangled name"), "no mangled name");
  EXPECT_EQ(ESystemError("open", "/a/b", ENOENT).Message(),
            "open /a/b: No such file or directory (errno 2)");
  EXPECT_EQ(ThrownMessage([] { throw std::out_of_range("range"); }), "range");
  EXPECT_EQ(ThrownMessage([] { throw 5; }), "unknown exception");
}

}  // namespace
}  // namespace guardian
