#include "common/Timer.h"

#include <gmock/gmock.h>

#include <memory>
#include <mutex>
#include <vector>

#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;

class TKZTimerTest : public testing::Test {
 protected:
  void SetUp() override { MakeTimer(milliseconds(100)); }
  void TearDown() override { FTimer.reset(); }

  void MakeTimer(milliseconds interval) {
    FTimer = std::make_unique<TKZTimer>(
        "TestTimer", interval, [this] { Handle(); },
        [this](const std::exception_ptr& /*error*/) { ++FErrors; }, FClock);
  }

  // The times of the calls, from the beginning of the test, once there are that many.
  std::vector<std::int64_t> CallsOnceThereAre(std::size_t count) {
    EXPECT_TRUE(Eventually([&] { return Calls().size() >= count; }));
    return Calls();
  }

  std::vector<std::int64_t> Calls() {
    const std::lock_guard<std::mutex> lock(FLock);
    return FCalls;
  }

  // Stops short of the moment first, so that a call that comes too early shows its time.
  void AdvanceBy(milliseconds duration) {
    FClock.Advance(duration - milliseconds(1));
    SystemClock().Sleep(milliseconds(5));
    FClock.Advance(milliseconds(1));
  }

  TFakeClock FClock;
  const std::int64_t FStart = FClock.TickCount();
  std::function<void(std::size_t call)> FOnCall = [](std::size_t) {};
  std::atomic<int> FErrors = 0;
  std::atomic<std::size_t> FHandled = 0;
  std::unique_ptr<TKZTimer> FTimer;

 private:
  void Handle() {
    std::size_t call = 0;
    {
      const std::lock_guard<std::mutex> lock(FLock);
      FCalls.push_back(FClock.TickCount() - FStart);
      call = FCalls.size();
    }
    FOnCall(call);
  }

  std::mutex FLock;
  std::vector<std::int64_t> FCalls;
};

TEST_F(TKZTimerTest, CountsItsPeriodFromStartToStart) {
  FOnCall = [this](std::size_t) { FClock.Advance(milliseconds(30)); };
  FTimer->SetEnabled(true);
  AdvanceBy(milliseconds(100));
  CallsOnceThereAre(1);
  ASSERT_TRUE(Eventually([&] { return FClock.TickCount() - FStart == 130; }));
  AdvanceBy(milliseconds(70));
  EXPECT_THAT(CallsOnceThereAre(2), ElementsAre(100, 200));
}

TEST_F(TKZTimerTest, CallsAHandlerThatOverranAgainAtOnceButMakesUpForNothing) {
  FOnCall = [this](std::size_t call) {
    if (call == 1) FClock.Advance(milliseconds(350));
  };
  FTimer->SetEnabled(true);
  AdvanceBy(milliseconds(100));
  CallsOnceThereAre(2);
  AdvanceBy(milliseconds(100));
  EXPECT_THAT(CallsOnceThereAre(3), ElementsAre(100, 450, 550));
}

TEST_F(TKZTimerTest, BeginsANewPeriodWhenTheIntervalIsSet) {
  MakeTimer(milliseconds(10'000));
  FTimer->SetEnabled(true);
  AdvanceBy(milliseconds(9'000));
  FTimer->SetInterval(milliseconds(1'000));
  AdvanceBy(milliseconds(1'000));
  EXPECT_THAT(CallsOnceThereAre(1), ElementsAre(10'000));
  FTimer->SetInterval(milliseconds(5'000));
  AdvanceBy(milliseconds(5'000));
  EXPECT_THAT(CallsOnceThereAre(2), ElementsAre(10'000, 15'000));
}

TEST_F(TKZTimerTest, IsNotPostponedByAnIntervalThatIsSetAgainAndAgain) {
  MakeTimer(milliseconds(10'000));
  FTimer->SetEnabled(true);
  for (int request = 0; request < 5; ++request) {
    FTimer->SetInterval(milliseconds(1'000));
    AdvanceBy(milliseconds(200));
  }
  EXPECT_THAT(CallsOnceThereAre(1), ElementsAre(1'000));
}

TEST_F(TKZTimerTest, TakesANewIntervalAndItsEndFromItsHandler) {
  FOnCall = [this](std::size_t call) {
    if (call == 1) FTimer->SetInterval(milliseconds(1'000));
    if (call == 2) FTimer->SetEnabled(false);
    FHandled = call;
  };
  FTimer->SetEnabled(true);
  AdvanceBy(milliseconds(100));
  ASSERT_TRUE(Eventually([&] { return FHandled == 1; }));
  AdvanceBy(milliseconds(1'000));
  ASSERT_TRUE(Eventually([&] { return FHandled == 2; }));
  FClock.Advance(milliseconds(50'000));
  FTimer->SetEnabled(true);
  AdvanceBy(milliseconds(1'000));
  EXPECT_THAT(CallsOnceThereAre(3), ElementsAre(100, 1'100, 52'100)) << "a full new period";
}

TEST_F(TKZTimerTest, GoesOnAfterAHandlerThatRaises) {
  FOnCall = [](std::size_t call) {
    if (call == 1) throw KZException("in the handler");
  };
  FTimer->SetEnabled(true);
  AdvanceBy(milliseconds(100));
  ASSERT_TRUE(Eventually([&] { return FErrors == 1; }));
  AdvanceBy(milliseconds(100));
  EXPECT_THAT(CallsOnceThereAre(2), ElementsAre(100, 200));
  EXPECT_EQ(FErrors, 1);
}

TEST_F(TKZTimerTest, CanBeDestroyedWhileItsHandlerWaitsForTheMainThread) {
  bool ran = false;
  FOnCall = [&](std::size_t) { Synchronize([&] { ran = true; }); };
  FTimer->SetEnabled(true);
  AdvanceBy(milliseconds(100));
  CallsOnceThereAre(1);
  FTimer.reset();
  EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace guardian
