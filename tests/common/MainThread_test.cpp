#include "common/MainThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "support/Crew.h"
#include "support/Eventually.h"
#include "support/ThrownMessage.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

TEST(MainThreadTest, RunsTheRequestsOfSeveralThreadsHereAndHandsExceptionsBack) {
  int ran = 0;  // Main thread only.
  TCrew crew(4, [&](int) {
    EXPECT_FALSE(IsMainThread());
    for (int each = 0; each < 100; ++each) {
      EXPECT_TRUE(Synchronize([&] { ran += IsMainThread() ? 1 : 0; }));
    }
    EXPECT_EQ(ThrownMessage([] { Synchronize([] { throw SoftException("in main"); }); }),
              "in main");
  });
  EXPECT_TRUE(Eventually([&] { return crew.Finished(); }));
  EXPECT_EQ(ran, 400);
  EXPECT_TRUE(Synchronize([&] { ran = -1; }));
  EXPECT_EQ(ran, -1) << "a request of the main thread runs at once";
}

// A thread that asks again and again must not hold up a main thread that waits with a limit.
TEST(MainThreadTest, RunsOnlyTheRequestsThatWaitAlready) {
  std::unique_ptr<TCrew> second;
  std::atomic<bool> asked = false;
  bool ran = false;
  TCrew first(1, [&](int) {
    Synchronize([&] {
      second = std::make_unique<TCrew>(1, [&](int) {
        asked = true;
        Synchronize([&] { ran = true; });
      });
      // Not Eventually, which would run the request.
      while (!asked) std::this_thread::yield();
      SystemClock().Sleep(milliseconds(20));
    });
  });
  while (!CheckSynchronize(std::chrono::hours(1))) continue;
  EXPECT_FALSE(ran);
  EXPECT_TRUE(Eventually([&] { return second->Finished() && first.Finished(); }));
  EXPECT_TRUE(ran);
}

TEST(MainThreadTest, RefusesWhatWaitsAndWhatComesOnceTheQueueIsClosed) {
  bool ran = false;
  std::atomic<int> begun = 0;
  std::atomic<int> refused = 0;
  const auto request = [&](int) {
    ++begun;
    refused += Synchronize([&] { ran = true; }) ? 0 : 1;
  };
  const TCrew early(2, request);
  while (begun < 2) std::this_thread::yield();
  SystemClock().Sleep(milliseconds(20));
  CloseMainThreadQueue();
  const TCrew late(1, request);
  EXPECT_TRUE(Eventually([&] { return early.Finished() && late.Finished(); }));
  BindMainThread();
  EXPECT_EQ(refused, 3);
  EXPECT_FALSE(ran);
  InThread([] { EXPECT_TRUE(Synchronize([] {})); });
}

// Without the wake-up the waits would take an hour, and the test's time limit would end them.
TEST(MainThreadTest, EndsItsWaitForAWakeUpThatCameBeforeOrComesMeanwhile) {
  while (CheckSynchronize(milliseconds(0))) continue;
  WakeMainThread();
  EXPECT_FALSE(CheckSynchronize(std::chrono::hours(1)));
  const TCrew waker(1, [](int) { WakeMainThread(); });
  EXPECT_FALSE(CheckSynchronize(std::chrono::hours(1)));
}

}  // namespace
}  // namespace guardian
