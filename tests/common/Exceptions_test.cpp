#include "common/Exceptions.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

namespace guardian {
namespace {

class ESpecial : public SoftException {
 public:
  using SoftException::SoftException;
};

// The address to which it returns is the second one of the stack if the first one is in here.
[[gnu::noinline]] KZException RaisedHere(const void*& caller) {
  caller = __builtin_return_address(0);
  return KZException("raised");
}

std::string MessageOf(const std::function<void()>& raise) {
  try {
    raise();
  } catch (...) {
    return CurrentExceptionMessage();
  }
  return "nothing was raised";
}

TEST(KZExceptionTest, NamesItsMostDerivedClassAlsoThroughItsBase) {
  const ESpecial special("text");
  const KZException& base = special;
  EXPECT_EQ(base.ClassName(), "ESpecial");
  EXPECT_STREQ(base.what(), "text");
  EXPECT_EQ(KZException("").ClassName(), "KZException");
  EXPECT_EQ(ExceptionClassName(special), "ESpecial");
  EXPECT_EQ(ExceptionClassName(std::runtime_error("")), "std::runtime_error");
}

TEST(KZExceptionTest, KnowsWhereItWasRaised) {
  const void* caller = nullptr;
  const KZException error = RaisedHere(caller);
  ASSERT_GE(error.Stack().size(), 2U);
  EXPECT_EQ(error.Address(), error.Stack()[0]);
  EXPECT_EQ(error.Stack()[1], caller);
}

TEST(ESystemErrorTest, TellsTheOperationTheObjectAndTheSystemsText) {
  const ESystemError error("open", "/a/b", ENOENT);
  EXPECT_EQ(error.Message(), "open /a/b: No such file or directory (errno 2)");
  EXPECT_EQ(error.ErrorNumber(), ENOENT);
}

TEST(ExceptionMessageTest, IsTheMessageOfWhateverIsBeingHandled) {
  EXPECT_EQ(MessageOf([] { throw SoftException("soft"); }), "soft");
  EXPECT_EQ(MessageOf([] { throw std::out_of_range("range"); }), "range");
  EXPECT_EQ(MessageOf([] { throw 5; }), "unknown exception");
}

}  // namespace
}  // namespace guardian
