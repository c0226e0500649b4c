#include <cstdlib>
#include <new>

#include "common/DiagnosticMessage.h"
#include "diagnostics/Diagnostics.h"
#include "diagnostics/exception_report.h"

namespace {

// Which allocation of the thread fails next, counted from 1; 0 for none.
constinit thread_local int failingAllocation = 0;
constinit thread_local bool allFailFromThenOn = false;

}  // namespace

void* operator new(std::size_t size) {
  const bool fails = failingAllocation > 0 && --failingAllocation == 0;
  if (fails && allFailFromThenOn) failingAllocation = 1;
  void* const memory = fails ? nullptr : std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }

namespace guardian {
namespace {

// A failure would be the end of the process, or a thread that waits for itself.
TEST(OutOfMemoryTest, CostsAReportSomeLinesAtMost) {
  const TSettingsBackup settings;
  const TTempFolder folder;
  Settings().LogDirectory.Set(folder.Path());
  const std::exception_ptr error = std::make_exception_ptr(KZException("gone wrong"));
  const std::string where = "where";
  testing::internal::CaptureStderr();
  int failing = 0;
  do {
    std::string text;
    failingAllocation = ++failing;
    GetExceptionReport(text, error, where, TThreadReportPart::With);
    HandleException(error, TLogToFiles::Yes, where);
  } while (std::exchange(failingAllocation, 0) == 0 && failing < 5000);
  EXPECT_THAT(failing, testing::AllOf(testing::Gt(50), testing::Lt(5000)));
  EXPECT_EQ(ExceptionReportsInProgress(), 0);
  static_cast<void>(testing::internal::GetCapturedStderr());

  const std::exception_ptr longer = std::make_exception_ptr(KZException(std::string(100, 'x')));
  testing::internal::CaptureStderr();
  allFailFromThenOn = true;
  failingAllocation = 1;
  const bool done =
      Guarded("OutOfMemoryTest", SystemClock(), [&] { std::rethrow_exception(longer); });
  allFailFromThenOn = false;
  failingAllocation = 0;
  EXPECT_FALSE(done);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "OutOfMemoryTest\n");
}

}  // namespace
}  // namespace guardian
