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

}  // namespace
}  // namespace guardian
