#include "common/Timer.h"

#include <gmock/gmock.h>

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "common/AtEnd.h"
#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "common/SharedText.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

class TKZTimerTest : public testing::Test {
 protected:
  // Stops short of the moment first, so that a call that comes too early shows its time; then waits
  // until the handler has returned as often as that.
  void AdvanceBy(milliseconds duration, std::size_t callsUntilThen) {
    FClock.Advance(duration - milliseconds(1));
    SystemClock().Sleep(milliseconds(5));
    FClock.Advance(milliseconds(1));
    ASSERT_TRUE(Eventually([&] { return FReturned >= callsUntilThen; }));
  }

  void Handle() {
    std::vector<std::int64_t> calls = FCalls.Copy();
    calls.push_back(FClock.TickCount() - FStart);
    FCalls.Set(calls);
    const TAtEnd returned([&] { FReturned = calls.size(); });
    FOnCall(calls.size());
  }

  TFakeClock FClock;
  const std::int64_t FStart = FClock.TickCount();
  TShared<std::vector<std::int64_t>> FCalls;  // Times from the beginning of the test.
  std::atomic<std::size_t> FReturned = 0;
  std::function<void(std::size_t call)> FOnCall = [](std::size_t) {};
  std::atomic<int> FErrors = 0;
  std::unique_ptr<TKZTimer> FTimer = std::make_unique<TKZTimer>(
      "TestTimer", milliseconds(100), [this] { Handle(); },
      [this](const std::exception_ptr& /*error*/) { ++FErrors; }, FClock);
};

TEST_F(TKZTimerTest, CountsFromStartToStartAndMakesUpForNothing) {
  FOnCall = [this](std::size_t call) {
    if (call == 1) FClock.Advance(milliseconds(30));
    if (call == 2) FClock.Advance(milliseconds(350));
    if (call == 3) throw KZException("in the handler");
  };
  FTimer->SetEnabled(true);
  AdvanceBy(milliseconds(100), 1);
  AdvanceBy(milliseconds(70), 3);
  AdvanceBy(milliseconds(100), 4);
  EXPECT_THAT(FCalls.Copy(), ElementsAre(100, 200, 550, 650));
  EXPECT_EQ(FErrors, 1);
}

TEST_F(TKZTimerTest, BeginsANewPeriodWithAnotherIntervalAndWhenEnabled) {
  FOnCall = [this](std::size_t call) {
    if (call == 1) FTimer->SetInterval(milliseconds(2'000));
    if (call == 2) FTimer->SetEnabled(false);
  };
  FTimer->SetEnabled(true);
  AdvanceBy(milliseconds(90), 0);
  for (int request = 0; request < 5; ++request) {
    FTimer->SetInterval(milliseconds(1'000));  // Set again and again, it does not begin anew.
    AdvanceBy(milliseconds(200), request == 4 ? 1 : 0);
  }
  AdvanceBy(milliseconds(2'000), 2);
  AdvanceBy(milliseconds(50'000), 2);
  FTimer->SetEnabled(true);
  AdvanceBy(milliseconds(2'000), 3);
  EXPECT_THAT(FCalls.Copy(), ElementsAre(1'090, 3'090, 55'090));
}

TEST_F(TKZTimerTest, CanBeDestroyedWhileItsHandlerWaitsForTheMainThread) {
  bool ran = false;
  std::atomic<bool> called = false;
  FOnCall = [&](std::size_t) {
    called = true;
    Synchronize([&] { ran = true; });
  };
  FTimer->SetEnabled(true);
  FClock.Advance(milliseconds(100));
  while (!called) SystemClock().Sleep(milliseconds(1));
  FTimer.reset();
  EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace guardian
