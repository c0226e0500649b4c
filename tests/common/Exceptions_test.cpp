#include "common/Exceptions.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>

#include "support/ThrownMessage.h"

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

// Throws an exception that is not ours, from a stack that nothing else here has.
[[gnu::noinline]] void ThrowForeign(const void*& caller) {
  caller = __builtin_return_address(0);
  throw std::runtime_error("foreign");
}

TEST(ExceptionsTest, DescribeAForeignThrowByItsStackAsLongAsItIsOneOfTheLastFour) {
  for (const int later : {3, 4}) {
    const void* caller = nullptr;
    std::exception_ptr error;
    try {
      ThrowForeign(caller);
    } catch (...) {
      error = std::current_exception();
    }
    for (int i = 0; i < later; ++i) EXPECT_EQ(ThrownMessage([] { throw 5; }), "unknown exception");
    const TExceptionDetails details = DescribeException(error);
    EXPECT_EQ(details.ClassName + ": " + details.Message, "std::runtime_error: foreign");
    EXPECT_FALSE(details.Soft);
    EXPECT_EQ(details.StackOfCatcher, later == 4);
    ASSERT_GE(details.Stack.size(), 2U);
    EXPECT_EQ(details.Stack[1] == caller, later == 3);
  }
  EXPECT_TRUE(DescribeException(std::make_exception_ptr(ESpecial("soft"))).Soft);
}

}  // namespace
}  // namespace guardian
