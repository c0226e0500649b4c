#include "common/Event.h"

#include <gtest/gtest.h>

#include <atomic>

#include "support/Crew.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

class TKZEventTest : public testing::Test {
 protected:
  // Two threads that wait a second of the fake clock, and how their waits ended.
  struct TWaiters {
    explicit TWaiters(TKZEvent& event)
        : Crew(2,
               [this, &event](int) { ++(event.WaitFor(milliseconds(1000)) ? Woken : TimedOut); }) {}
    std::atomic<int> Woken = 0;
    std::atomic<int> TimedOut = 0;
    TCrew Crew;
  };

  TFakeClock FClock;
};

TEST_F(TKZEventTest, GivesAnAutomaticSignalToOneWaitOnly) {
  TKZEvent event("Auto", TEventReset::Auto, FClock);
  EXPECT_FALSE(event.WaitFor(milliseconds(0))) << "not signalled at first";
  event.Signal();
  event.Signal();
  EXPECT_TRUE(event.WaitFor(milliseconds(0)));
  EXPECT_FALSE(event.WaitFor(milliseconds(0)));
  event.Signal();
  event.Reset();
  EXPECT_FALSE(event.WaitFor(milliseconds(0)));
  TWaiters waiters(event);
  event.Signal();
  ASSERT_TRUE(Eventually([&] { return waiters.Woken > 0; }));
  // A waiter may begin late and count from then, so the time moves until it is through.
  ASSERT_TRUE(Eventually([&] {
    FClock.Advance(milliseconds(1000));
    return waiters.Crew.Finished();
  }));
  EXPECT_EQ(waiters.Woken, 1);
  EXPECT_EQ(waiters.TimedOut, 1);
}

TEST_F(TKZEventTest, KeepsAManualSignalForAllUntilReset) {
  TKZEvent event("Manual", TEventReset::Manual, FClock);
  TWaiters waiters(event);
  event.Signal();
  waiters.Crew.Join();
  EXPECT_EQ(waiters.Woken, 2);
  EXPECT_TRUE(event.WaitFor(milliseconds(0)));
  event.Reset();
  EXPECT_FALSE(event.WaitFor(milliseconds(0)));
}

}  // namespace
}  // namespace guardian
