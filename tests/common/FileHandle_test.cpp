#include "common/FileHandle.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <utility>

#include "support/Crew.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"
#include "support/OpenDescriptors.h"
#include "support/TempFolder.h"
#include "support/ThrownMessage.h"

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
  const std::set<int> FBefore = OpenDescriptors();
};

TEST_F(FileHandleTest, ClosesOnceAndRefusesWhatIsNoFileObject) {
  const TFileHandle handle = AddFileObject(Open());
  EXPECT_GT(handle, 1);
  EXPECT_NE(OpenDescriptors(), FBefore);
  CloseHandle(handle);
  EXPECT_EQ(OpenDescriptors(), FBefore);
  EXPECT_GT(AddFileObject(Open()), handle) << "no number is given twice";
  CloseHandle(handle + 1);
  CloseHandle(0);
  CloseHandle(1);
  for (const TFileHandle bad : {handle, handle + 2, TFileHandle{-1}}) {
    EXPECT_EQ(ThrownMessage([&] { CloseHandle(bad); }), "Invalid handle passed to CloseHandle");
  }
  EXPECT_THROW(static_cast<void>(AddFileObject(TFileDescriptor())), KZException);
}

TEST_F(FileHandleTest, UnlocksAtOnceAndWaitsASecondForABorrower) {
  TFakeClock clock;
  TFileDescriptor file = Open();
  ASSERT_EQ(::flock(file.Get(), LOCK_EX | LOCK_NB), 0);
  const TFileHandle handle = AddFileObject(std::move(file));
  auto borrowed = BorrowFileObject(handle);
  const std::int64_t start = clock.TickCount();
  const TCrew closer(1, [&](int) { CloseHandle(handle, clock); });
  EXPECT_TRUE(Eventually([&] { return !IsLocked(); }));
  EXPECT_TRUE(Eventually([&] {
    clock.Advance(std::chrono::milliseconds(50));
    return closer.Finished();
  }));
  EXPECT_GE(clock.TickCount() - start, 1000);
  EXPECT_EQ(BorrowFileObject(handle), nullptr);
  EXPECT_NE(OpenDescriptors(), FBefore);
  borrowed.reset();
  EXPECT_EQ(OpenDescriptors(), FBefore);
}

}  // namespace
}  // namespace guardian
