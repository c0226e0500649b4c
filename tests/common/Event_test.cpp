#include "common/Event.h"

#include <gtest/gtest.h>

#include "common/Thread.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kNow{0};
constexpr milliseconds kSecondLong{1000};

class TKZEventTest : public testing::Test {
 protected:
  // Waits a second of the fake clock in a thread; the result once it has returned.
  class TWaiter {
   public:
    explicit TWaiter(TKZEvent& event)
        : FThread("Waiter", [this, &event] { FResult = event.WaitFor(kSecondLong); }) {
      FThread.Start();
    }
    [[nodiscard]] bool Finished() const { return FThread.Finished(); }
    bool Result() {
      FThread.Join();
      return FResult;
    }

   private:
    bool FResult = false;
    TFunctionThread FThread;
  };

  TFakeClock FClock;
};

TEST_F(TKZEventTest, GivesAnAutomaticSignalToOneWaitOnly) {
  TKZEvent event("Auto", TEventReset::Auto, FClock);
  EXPECT_FALSE(event.WaitFor(kNow)) << "not signalled at first";
  event.Signal();
  event.Signal();
  EXPECT_TRUE(event.WaitFor(kNow));
  EXPECT_FALSE(event.WaitFor(kNow));
  event.Signal();
  event.Reset();
  EXPECT_FALSE(event.WaitFor(kNow));

  TWaiter first(event);
  TWaiter second(event);
  event.Signal();
  ASSERT_TRUE(Eventually([&] { return first.Finished() || second.Finished(); }));
  EXPECT_FALSE(first.Finished() && second.Finished());
  event.Signal();
  EXPECT_TRUE(first.Result());
  EXPECT_TRUE(second.Result());
}

TEST_F(TKZEventTest, KeepsAManualSignalForAllUntilReset) {
  TKZEvent event("Manual", TEventReset::Manual, FClock);
  TWaiter first(event);
  TWaiter second(event);
  event.Signal();
  EXPECT_TRUE(first.Result());
  EXPECT_TRUE(second.Result());
  EXPECT_TRUE(event.WaitFor(kNow));
  event.Reset();
  EXPECT_FALSE(event.WaitFor(kNow));
}

TEST_F(TKZEventTest, EndsAWaitAtItsTimeoutOnItsOwnClock) {
  TKZEvent event("Auto", TEventReset::Auto, FClock);
  TWaiter waiter(event);
  // The waiter may begin late and count from then, so the time moves until it is through.
  ASSERT_TRUE(Eventually([&] {
    FClock.Advance(kSecondLong);
    return waiter.Finished();
  }));
  EXPECT_FALSE(waiter.Result());
}

}  // namespace
}  // namespace guardian
