#include "diagnostics/KZCriticalSection.h"

#include <gtest/gtest.h>

#include "diagnostics/Diagnostics.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/checkpoints/CheckpointRecord.h"

namespace guardian {
namespace {

TEST(TKZCriticalSectionTest, IsFreeWhenTheHolderHasLeftAsOftenAsItEntered) {
  TKZCriticalSection section("Twice");
  // Not analysed: the analysis knows no lock that its holder enters again.
  const auto enterTwice = [&]() KZ_NO_ANALYSIS {
    section.Enter();
    section.Enter();
    section.Leave();
    EXPECT_EQ(section.Holder(), CurrentThreadId());
    section.Leave();
  };
  enterTwice();
  EXPECT_EQ(section.Holder(), 0);
  InThread([&section] {
    const TKZLockGuard lock(section);
    EXPECT_EQ(section.Holder(), CurrentThreadId());
  });
}

TEST(TKZCriticalSectionTest, IgnoresALeaveOfAnotherThread) {
  TKZCriticalSection section("Mine");
  const TKZLockGuard lock(section);
  InThread([&section]() KZ_NO_ANALYSIS { section.Leave(); });
  EXPECT_EQ(section.Holder(), CurrentThreadId());
}

TEST(TKZCriticalSectionTest, ExcludesOthers) {
  constexpr int kRounds = 20'000;
  TKZCriticalSection section("Counter");
  int counter = 0;
  const auto count = [&] {
    for (int i = 0; i < kRounds; ++i) {
      const TKZLockGuard lock(section);
      ++counter;
    }
  };
  TFunctionThread other("Other", count);
  other.Start();
  count();
  other.Join();
  EXPECT_EQ(counter, 2 * kRounds);
}

TEST(TKZCriticalSectionTest, IsNotedByItsWaiterForTheTimeOfTheWait) {
  TKZCriticalSection section("Awaited");
  std::atomic<TCheckpointRecord*> record = nullptr;
  TKZEvent look("Look");
  TFunctionThread waiter("Waiter", [&] {
    record = KZCP::CurrentRecord();
    const TKZLockGuard lock(section);
    look.WaitFor(std::chrono::seconds(60));
  });
  {
    const TKZLockGuard lock(section);
    waiter.Start();
    ASSERT_TRUE(Eventually([&] { return record != nullptr && record.load()->AwaitedLock(); }));
    const auto awaited = record.load()->AwaitedLock();
    EXPECT_EQ(awaited->Name, "Awaited");
    EXPECT_EQ(awaited->Holder, CurrentThreadId());
  }
  ASSERT_TRUE(Eventually([&] { return section.Holder() == waiter.ThreadId(); }));
  EXPECT_FALSE(record.load()->AwaitedLock());
  look.Signal();
  waiter.Join();
}

}  // namespace
}  // namespace guardian
