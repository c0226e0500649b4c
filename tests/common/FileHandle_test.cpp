#include "common/FileHandle.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <utility>

#include "common/Exceptions.h"
#include "common/Thread.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

class FileHandleTest : public testing::Test {
 protected:
  [[nodiscard]] TFileDescriptor Open() const {
    return TFileDescriptor(
        ::open(FFolder.Path("file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  }
  [[nodiscard]] bool IsLocked() const { return ::flock(Open().Get(), LOCK_EX | LOCK_NB) != 0; }

  const TTempFolder FFolder;
  TFakeClock FClock;
};

TEST_F(FileHandleTest, ClosesOnceAndRefusesWhatIsNoFileObject) {
  TFileDescriptor file = Open();
  const int descriptor = file.Get();
  const TFileHandle handle = AddFileObject(std::move(file));
  EXPECT_GT(handle, 1);
  CloseHandle(handle);
  EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1);
  CloseHandle(0);
  CloseHandle(1);
  for (const TFileHandle bad : {handle, handle + 1, TFileHandle{-1}}) {
    SCOPED_TRACE(bad);
    try {
      CloseHandle(bad);
      ADD_FAILURE() << "closed";
    } catch (const KZException& error) {
      EXPECT_EQ(error.Message(), "Invalid handle passed to CloseHandle");
    }
  }
  EXPECT_THROW(static_cast<void>(AddFileObject(TFileDescriptor())), KZException);
}

TEST_F(FileHandleTest, UnlocksAtOnceAndWaitsASecondForABorrower) {
  TFileDescriptor file = Open();
  ASSERT_EQ(::flock(file.Get(), LOCK_EX | LOCK_NB), 0);
  const TFileHandle handle = AddFileObject(std::move(file));
  auto borrowed = BorrowFileObject(handle);
  ASSERT_NE(borrowed, nullptr);
  const int descriptor = borrowed->Get();
  const std::int64_t start = FClock.TickCount();
  TFunctionThread closer("Closer", [&] { CloseHandle(handle, FClock); });
  closer.Start();
  EXPECT_TRUE(Eventually([&] { return !IsLocked(); }));
  EXPECT_TRUE(Eventually([&] {
    FClock.Advance(std::chrono::milliseconds(50));
    return closer.Finished();
  }));
  EXPECT_GE(FClock.TickCount() - start, 1000);
  EXPECT_EQ(BorrowFileObject(handle), nullptr);
  EXPECT_NE(::fcntl(descriptor, F_GETFD), -1);
  borrowed.reset();
  EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1);
}

}  // namespace
}  // namespace guardian
