#include "common/Thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <array>
#include <atomic>

#include "common/Event.h"
#include "common/Exceptions.h"
#include "common/FatalSignals.h"
#include "common/MainThread.h"
#include "common/SharedText.h"
#include "support/Crew.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

// Waits for its termination, and counts what happens to it.
class TWaitingThread final : public TThread {
 public:
  TWaitingThread() : TThread("WaitingThreadWithALongName") {}
  ~TWaitingThread() override { Join(); }

  std::atomic<int> FinishedCalls = 0;

 private:
  void Execute() override {
    while (!Terminated()) FWake.WaitFor(std::chrono::hours(1));
    throw KZException("escaped");
  }
  void OnTerminate() override { FWake.Signal(); }
  void OnFinished() override { ++FinishedCalls; }

  TKZEvent FWake{"Wake"};
};

TEST(TThreadTest, EndsInOrderWhenAskedToAndHandsEscapedExceptionsOn) {
  std::string escaped;
  TThread::SetExceptionHandler([&](const std::string& threadName, const std::exception_ptr& error) {
    escaped = threadName + ": " + MessageOf(error);
  });
  TWaitingThread thread;
  thread.Join();
  EXPECT_FALSE(thread.Finished()) << "it was not started";
  thread.Start();
  EXPECT_FALSE(thread.WaitFinished(milliseconds(0)));
  EXPECT_FALSE(thread.Finished());
  thread.Terminate();
  EXPECT_TRUE(thread.WaitFinished(std::chrono::hours(1)));
  EXPECT_TRUE(thread.Finished());
  thread.Join();
  thread.Join();
  TThread::SetExceptionHandler({});
  EXPECT_EQ(thread.FinishedCalls, 1) << "however Execute ended";
  EXPECT_EQ(escaped, "WaitingThreadWithALongName: escaped");
}

TEST(TThreadTest, RunsSynchroniseRequestsWhileTheMainThreadJoins) {
  bool ran = false;
  {
    TFunctionThread thread("Requester", [&] { Synchronize([&] { ran = true; }); });
    thread.Start();
  }
  EXPECT_TRUE(ran);
}

TEST(TThreadTest, StartsWithItsStacksAndWithAllSignalsBlockedButTheFatalOnes) {
  // More than any other thread here asks for: the system may hand out a used stack that is larger.
  constexpr std::size_t kStackBytes = 24 * 1'048'576;
  std::size_t stackBytes = 0;
  sigset_t blocked{};
  stack_t signalStack{};
  std::array<char, 16> name{};
  std::int32_t threadId = 0;
  TFunctionThread thread(
      "AThreadWithALongName",
      [&] {
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        ::sigaltstack(nullptr, &signalStack);
        pthread_getname_np(pthread_self(), name.data(), name.size());
        threadId = CurrentThreadId();
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &stackBytes);
        pthread_attr_destroy(&attributes);
      },
      kStackBytes);
  thread.Start();
  thread.Join();
  EXPECT_GE(stackBytes, kStackBytes);
  EXPECT_EQ(signalStack.ss_flags & SS_DISABLE, 0);
  EXPECT_STREQ(name.data(), "AThreadWithALon") << "as much as the kernel keeps";
  EXPECT_NE(threadId, CurrentThreadId());
  sigset_t ours{};
  pthread_sigmask(SIG_SETMASK, nullptr, &ours);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGUSR1}) {
    EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
    EXPECT_EQ(sigismember(&ours, signal), 0) << signal;
  }
  for (const int signal : kFatalSignals) EXPECT_EQ(sigismember(&blocked, signal), 0) << signal;
}

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

// Run with the thread sanitizer, this is also the proof that no read races with the replacement.
TEST(TSharedTextTest, ShowsEveryReaderOneWholeTextForAsLongAsItIsKept) {
  TSharedText text("old");
  const TSharedText::TText kept = text.Get();
  text.Set("new");
  EXPECT_EQ(*kept, "old");
  EXPECT_EQ(text.Copy(), "new");
  text.Set("a");
  std::atomic<bool> done = false;
  TCrew readers(3, [&](int) {
    while (!done) {
      const TSharedText::TText seen = text.Get();
      EXPECT_EQ(*seen,
                std::string(static_cast<std::size_t>(seen->front() - 'a' + 1), seen->front()));
    }
  });
  for (int i = 0; i < 2000; ++i) {
    const int letter = i % 26;
    text.Set(std::string(static_cast<std::size_t>(letter + 1), static_cast<char>('a' + letter)));
  }
  done = true;
}

}  // namespace
}  // namespace guardian
