#include "common/Thread.h"

#include <sched.h>
#include <time.h>

#include <thread>

#include "common/AtEnd.h"
#include "common/FatalSignals.h"
#include "common/LookThread.h"
#include "common/Timer.h"
#include "support/TestSupport.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

TEST(TClockTest, KeepsSteadyInstantsWhenTheWallClockSteps) {
  TFakeClock clock;
  const TDateTime steady = clock.SteadyNow();
  const TDateTime wall = clock.Now();
  EXPECT_GT(steady - 1000 * kDay, 0) << "now minus some days stays positive";
  clock.Advance(std::chrono::minutes(3));
  clock.SetWall(wall + 7 * kDay);
  EXPECT_NEAR(clock.ToWallTime(steady), wall + 7 * kDay - 3 * kMinute, kSecond / 1000);
  EXPECT_EQ(clock.ToWallTime(0), 0) << "zero means never";
}

TEST(TClockTest, ReadsLocalWallTimeAndShowsItWithoutAmbiguity) {
  ::setenv("TZ", "XYZ-3:30", 1);
  ::tzset();
  const TDateTime difference = SystemClock().Now() - SystemClock().UtcNow();
  ::unsetenv("TZ");
  ::tzset();
  EXPECT_NEAR(difference, 3.5 / 24, kMinute);
  EXPECT_NEAR((SystemClock().UtcNow() - 25'569) * 86'400, static_cast<double>(::time(nullptr)), 60);
  for (std::int64_t second = 1'790'000'000; second < 1'790'010'000; ++second) {
    ASSERT_EQ(UnixSeconds(FromUnixSeconds(second)), second);
  }
  EXPECT_EQ(DateTimeToStr(46347.0 + 22'425.0 / 86'400), "2026-11-21 06:13:45");
  EXPECT_EQ(DateTimeToStr(46347.0 - 0.0004 * kSecond), "2026-11-21 00:00:00");
  EXPECT_EQ(DateTimeToStr(46347.0 - 0.001 * kSecond), "2026-11-20 23:59:59");
}

// A time namespace whose machine has slept for an hour more than ours.
TEST(TClockTest, CountsTheTimeAsleep) {
  constexpr int kNotAllowed = 77;
  constexpr int kNewTimeNamespace = 0x80;
  const std::int64_t before = SystemTickCount();
  const int status = StatusOfChild([before] {
    if (::unshare(kNewTimeNamespace) != 0) return kNotAllowed;
    std::ofstream("/proc/self/timens_offsets") << "boottime 3600 0\n";
    return StatusOfChild([before] { return SystemTickCount() - before >= 3'600'000 ? 0 : 1; });
  });
  if (status == kNotAllowed) GTEST_SKIP() << "no time namespaces here";
  EXPECT_EQ(status, 0);
}

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
  thread.Join();  // It was not started.
  thread.Start();
  EXPECT_FALSE(thread.WaitFinished(milliseconds(0)) || thread.Finished());
  thread.Terminate();
  EXPECT_TRUE(thread.WaitFinished(std::chrono::hours(1)) && thread.Finished());
  thread.Join();
  thread.Join();
  TThread::SetExceptionHandler({});
  EXPECT_EQ(thread.FinishedCalls, 1) << "however Execute ended";
  EXPECT_EQ(escaped, "WaitingThreadWithALongName: escaped");
}

TEST(TThreadTest, HasItsNameItsIdAndAllSignalsBlockedButTheFatalOnes) {
  sigset_t blocked{};
  std::array<char, 16> name{};
  TFunctionThread thread("AThreadWithALongName", [&] {
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    pthread_getname_np(pthread_self(), name.data(), name.size());
  });
  thread.Start();
  thread.Join();
  EXPECT_STREQ(name.data(), "AThreadWithALon") << "as much as the kernel keeps";
  sigset_t ours{};
  pthread_sigmask(SIG_SETMASK, nullptr, &ours);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGUSR1}) {
    EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
    EXPECT_EQ(sigismember(&ours, signal), 0) << signal;
  }
  for (const int signal : kFatalSignals) EXPECT_EQ(sigismember(&blocked, signal), 0) << signal;
  EXPECT_EQ(CurrentThreadId(), ::gettid());
  EXPECT_EQ(StatusOfChild([] { return CurrentThreadId() == ::getpid() ? 0 : 1; }), 0);
}

TEST(TThreadTest, IsJoinedOnceByAllWhoJoinItAndNeverWaitedForWhenItCannotStart) {
  TKZEvent go("Go");
  TFunctionThread thread("Joined", [&] { go.WaitFor(std::chrono::hours(1)); });
  thread.Start();
  const TCrew other(1, [&](int) {
    Synchronize([&] {
      go.Signal();
      thread.Join();
    });
  });
  thread.Join();  // Runs the other's request while it waits.
  TFunctionThread huge(
      "Huge", [] {}, std::size_t{1} << 60U);
  EXPECT_THROW(huge.Start(), ESystemError);
  EXPECT_TRUE(huge.WaitFinished(milliseconds(0)));
}

// A look that counts, and then stands still or fails when the test says so.
TEST(TLookThreadTest, AnswersWithoutEverStandingStillWithItsLook) {
  constexpr std::chrono::seconds kLong{30};
  std::atomic<int> looks = 0;
  std::atomic<bool> fails = true;
  std::atomic<bool> stands = false;
  TKZEvent go("Go", TEventReset::Manual);
  const auto look = [&] {
    const int seen = ++looks;
    if (stands) go.WaitFor(std::chrono::hours(1));
    if (fails) throw SoftException("on purpose");
    return seen;
  };
  auto thread = std::make_unique<TLookThread<int>>("Look", look, -1);
  const std::int64_t start = SystemTickCount();
  thread->Start();
  EXPECT_EQ(thread->AskBriefly(milliseconds(0)), -1);
  EXPECT_TRUE(Eventually([&] { return looks >= 3; }));
  EXPECT_GE(SystemTickCount() - start, 200) << "no spin";
  fails = false;
  EXPECT_TRUE(thread->Ask(std::chrono::hours(1)));  // The test's time limit would end it.
  EXPECT_FALSE(thread->WaitsFor(milliseconds(0))) << "nobody has asked";
  const int before = looks;
  EXPECT_EQ(thread->AskBriefly(std::chrono::hours(1)), before);
  EXPECT_EQ(looks, before) << "no look where a fresh answer will do";

  stands = true;
  EXPECT_EQ(thread->AskBriefly(milliseconds(0)), before);
  EXPECT_EQ(thread->AskBriefly(milliseconds(0)), before) << "joins the look that stands";
  EXPECT_TRUE(thread->WaitsFor(milliseconds(100))) << "from the first question on";
  go.Signal();
  EXPECT_TRUE(Eventually([&] { return !thread->WaitsFor(milliseconds(0)); }));
  EXPECT_EQ(looks, before + 1);
  go.Reset();
  EXPECT_FALSE(thread->Ask(milliseconds(0)));
  EXPECT_TRUE(Eventually([&] { return looks == before + 2; }));
  EXPECT_FALSE(thread->Ask(milliseconds(0))) << "has a look of its own";
  go.Signal();
  EXPECT_TRUE(Eventually([&] { return !thread->WaitsFor(milliseconds(0)); }));
  EXPECT_EQ(looks, before + 3);
  go.Reset();
  EXPECT_FALSE(thread->Ask(milliseconds(0)));
  EXPECT_TRUE(Eventually([&] { return looks == before + 4; })) << "it stands";
  TThread& leftBehind = *thread;
  EXPECT_FALSE(TThread::EndOrLeaveBehind(std::move(thread), milliseconds(0)));
  go.Signal();
  EXPECT_TRUE(leftBehind.WaitFinished(kLong));
}

TEST(TKZEventTest, GivesAnAutomaticSignalToOneWaitAndAManualOneToAll) {
  for (const TEventReset reset : {TEventReset::Auto, TEventReset::Manual}) {
    const bool isManual = reset == TEventReset::Manual;
    SCOPED_TRACE(isManual);
    TKZEvent event("Test", reset);
    EXPECT_FALSE(event.WaitFor(milliseconds(1)));
    for (int i = 0; i < 2; ++i) event.Signal();
    EXPECT_TRUE(event.WaitFor(milliseconds(0)));
    EXPECT_EQ(event.WaitFor(milliseconds(0)), isManual);
    event.Signal();
    event.Reset();
    EXPECT_FALSE(event.WaitFor(milliseconds(0)));
    std::atomic<int> woken = 0;
    TCrew waiters(2, [&](int) { woken += event.WaitFor(std::chrono::hours(1)) ? 1 : 0; });
    SystemClock().Sleep(milliseconds(20));  // So that both wait, as a rule.
    event.Signal();
    EXPECT_TRUE(Eventually([&] { return woken == (isManual ? 2 : 1); }));
    event.Signal();
  }
}

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
  const std::set<int> descriptors = OpenDescriptors();
  BindMainThread();
  EXPECT_EQ(OpenDescriptors(), descriptors) << "threads use the one for wake-ups at any time";
  EXPECT_EQ(refused, 3);
  EXPECT_FALSE(ran);
  InThread([] { EXPECT_TRUE(Synchronize([] {})); });
}

// Without the wake-up the waits would take an hour, and the test's time limit would end them.
TEST(MainThreadTest, EndsItsWaitForAWakeUpThatCameBeforeOrComesMeanwhile) {
  while (CheckSynchronize(milliseconds(0))) continue;
  WakeMainThread();
  EXPECT_FALSE(CheckSynchronize(std::chrono::hours(1)));
  const std::int64_t end = SystemTickCount() + 20;
  EXPECT_TRUE(!CheckSynchronize(milliseconds(21)) && SystemTickCount() >= end) << "one ends one";
  const TCrew waker(1, [](int) { WakeMainThread(); });
  EXPECT_FALSE(CheckSynchronize(std::chrono::hours(1)));
}

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
    FCalls.push_back(FClock.TickCount() - FStart);
    const TAtEnd returned([this] { FReturned = FCalls.size(); });
    FOnCall(FCalls.size());
  }

  TFakeClock FClock;
  const std::int64_t FStart = FClock.TickCount();
  std::vector<std::int64_t> FCalls;  // Times from the beginning of the test, by the timer's thread.
  std::atomic<std::size_t> FReturned = 0;
  std::function<void(std::size_t call)> FOnCall = [](std::size_t) {};
  std::atomic<int> FErrors = 0;
  TKZTimer FTimer{"TestTimer", milliseconds(100), [this] { Handle(); },
                  [this](const std::exception_ptr& error) {
                    ++FErrors;
                    std::rethrow_exception(error);
                  },
                  FClock};
};

TEST_F(TKZTimerTest, CountsFromStartToStartAndGoesOnWhateverFails) {
  FOnCall = [this](std::size_t call) {
    if (call == 1) FClock.Advance(milliseconds(30));
    if (call == 2) FClock.Advance(milliseconds(350));
    FClock.FailsNext = call == 3;
    if (call == 3) throw KZException("in the handler");
  };
  FTimer.SetEnabled(true);
  AdvanceBy(milliseconds(100), 1);
  AdvanceBy(milliseconds(70), 3);
  AdvanceBy(milliseconds(100), 4);
  EXPECT_THAT(FCalls, ElementsAre(100, 200, 550, 650));
  EXPECT_EQ(FErrors, 2);
}

TEST_F(TKZTimerTest, BeginsANewPeriodWithAnotherIntervalAndWhenEnabled) {
  FOnCall = [this](std::size_t call) {
    if (call == 1) FTimer.SetInterval(milliseconds(2'000));
    if (call == 2) FTimer.SetEnabled(false);
  };
  FTimer.SetEnabled(true);
  AdvanceBy(milliseconds(90), 0);
  for (int request = 0; request < 5; ++request) {
    FTimer.SetInterval(milliseconds(1'000));  // Set again and again, it does not begin anew.
    AdvanceBy(milliseconds(200), request == 4 ? 1 : 0);
  }
  AdvanceBy(milliseconds(2'000), 2);
  AdvanceBy(milliseconds(50'000), 2);
  FTimer.SetEnabled(true);
  AdvanceBy(milliseconds(2'000), 3);
  EXPECT_THAT(FCalls, ElementsAre(1'090, 3'090, 55'090));
}

TEST_F(TKZTimerTest, CanBeStoppedWhileItsHandlerWaitsForTheMainThread) {
  bool ran = false;
  std::atomic<bool> called = false;
  FOnCall = [&](std::size_t) {
    called = true;
    Synchronize([&] { ran = true; });
  };
  FTimer.SetEnabled(true);
  FClock.Advance(milliseconds(100));
  while (!called) SystemClock().Sleep(milliseconds(1));
  FTimer.Stop();
  EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace guardian
