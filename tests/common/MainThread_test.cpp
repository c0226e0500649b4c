#include "common/MainThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "common/Exceptions.h"
#include "common/Thread.h"
#include "support/Eventually.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kHangLimit{30'000};

std::unique_ptr<TFunctionThread> InThread(std::function<void()> work) {
  auto thread = std::make_unique<TFunctionThread>("Requester", std::move(work));
  thread->Start();
  return thread;
}

TEST(MainThreadTest, RunsTheRequestsOfSeveralThreadsHere) {
  constexpr int kThreads = 4;
  constexpr int kEach = 100;
  int ran = 0;  // Main thread only.
  std::vector<std::unique_ptr<TFunctionThread>> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.push_back(InThread([&] {
      EXPECT_FALSE(IsMainThread());
      for (int each = 0; each < kEach; ++each) {
        EXPECT_TRUE(Synchronize([&] { ran += IsMainThread() ? 1 : 0; }));
      }
    }));
  }
  for (const auto& thread : threads) EXPECT_TRUE(thread->WaitFinished(kHangLimit));
  EXPECT_EQ(ran, kThreads * kEach);
}

TEST(MainThreadTest, RunsARequestOfTheMainThreadAtOnce) {
  bool ran = false;
  EXPECT_TRUE(Synchronize([&] { ran = true; }));
  EXPECT_TRUE(ran);
}

TEST(MainThreadTest, HandsExceptionsBackToTheRequester) {
  std::string message;
  const auto thread = InThread([&] {
    try {
      Synchronize([] { throw SoftException("from the main thread"); });
    } catch (const SoftException& error) {
      message = error.Message();
    }
  });
  EXPECT_TRUE(thread->WaitFinished(kHangLimit));
  EXPECT_EQ(message, "from the main thread");
}

TEST(MainThreadTest, RunsRequestsAlsoWithinARequest) {
  bool innerRan = false;
  std::unique_ptr<TFunctionThread> inner;
  const auto outer = InThread([&] {
    Synchronize([&] {
      inner = InThread([&] { Synchronize([&] { innerRan = true; }); });
      EXPECT_TRUE(inner->WaitFinished(kHangLimit));
    });
  });
  EXPECT_TRUE(outer->WaitFinished(kHangLimit));
  EXPECT_TRUE(innerRan);
}

TEST(MainThreadTest, RefusesWhatWaitsAndWhatComesOnceTheQueueIsClosed) {
  bool ran = false;
  std::atomic<bool> begun = false;
  std::atomic<int> refused = 0;
  const auto request = [&] {
    begun = true;
    refused += Synchronize([&] { ran = true; }) ? 0 : 1;
  };
  const auto early = InThread(request);
  // Not Eventually, which would run the request.
  while (!begun) std::this_thread::yield();
  CloseMainThreadQueue();
  const auto late = InThread(request);
  EXPECT_TRUE(Eventually([&] { return early->Finished() && late->Finished(); }));
  BindMainThread();
  EXPECT_EQ(refused, 2);
  EXPECT_FALSE(ran);
  EXPECT_TRUE(InThread([] { EXPECT_TRUE(Synchronize([] {})); })->WaitFinished(kHangLimit));
}

// Without the wake-up the waits would take an hour, and the test's time limit would end them.
TEST(MainThreadTest, EndsItsWaitForAWakeUpThatCameBeforeOrComesMeanwhile) {
  while (CheckSynchronize(milliseconds(0))) continue;
  WakeMainThread();
  EXPECT_FALSE(CheckSynchronize(std::chrono::hours(1)));
  const auto thread = InThread([] { WakeMainThread(); });
  EXPECT_FALSE(CheckSynchronize(std::chrono::hours(1)));
  EXPECT_TRUE(thread->WaitFinished(kHangLimit));
}

}  // namespace
}  // namespace guardian
