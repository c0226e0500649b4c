#include "ipc/KZMessages.h"

#include <deque>
#include <random>

#include "ipc/MessageUnit.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

using KZMessagesTest = TUnitsTest;

// Random work from outside and in the handlers, which also fail. What is queued, oldest first, is
// the unit's model.
TEST_F(KZMessagesTest, DeliversAsAQueueDoesWhateverTheHandlersDo) {
  SetMessageExceptionReporter(
      [](const std::exception_ptr& error, auto&) { std::rethrow_exception(error); });
  std::mt19937 random(20261121);
  std::map<int, TRecorder> receivers;
  std::deque<std::pair<int, std::int64_t>> queued;
  std::int64_t posted = 0;
  const auto post = [&] {
    const int to = static_cast<int>(random() % 3);
    receivers[to].Post(++posted);
    queued.emplace_back(to, posted);
  };
  const auto deliver = [&](int receiver, std::int64_t number) {
    ASSERT_FALSE(DeliveryStopped() || queued.empty());
    ASSERT_EQ(queued.front(), std::pair(receiver, number));
    queued.pop_front();
    if (random() % 4 == 0) post();
    if (random() % 8 == 0) ProcessMessages();
    if (random() % 16 == 0) StopDelivery();
    if (random() % 8 == 0) throw KZException("on purpose");
    if (random() % 8 > 0) return;
    const int gone = (receiver + 1) % 3;
    RemoveMessagesFor(receivers[gone]);
    std::erase_if(queued, [=](const auto& each) { return each.first == gone; });
  };
  for (int i = 0; i < 3; ++i) {
    receivers[i].OnMessage = [=](const TKZMessage& each) { deliver(i, each.WParam); };
  }
  for (int round = 0; round < 2000 && !HasFailure(); ++round) {
    for (auto count = random() % 10; count > 0; --count) post();
    ResumeDelivery();
    ProcessMessages();
    EXPECT_TRUE(queued.empty() || DeliveryStopped());
  }
  // What was put back is delivered without anything being posted behind it.
  StopDelivery();
  post();
  ResumeDelivery();
  EXPECT_TRUE(Eventually([&] {
    if (DeliveryStopped()) ResumeDelivery();
    return queued.empty();
  }));
}

TEST_F(KZMessagesTest, LeavesTheMainThreadItsOtherWorkInAFlood) {
  constexpr std::size_t kEnough = 5'000'000;
  TRecorder flood;
  bool asked = false;
  bool otherWork = false;
  std::optional<TCrew> crew;
  flood.OnMessage = [&](const TKZMessage& message) {
    if (!std::exchange(asked, true)) crew = AskMainThread([&] { otherWork = true; });
    if (!otherWork && flood.Received.size() < kEnough) flood.Post(message.WParam + 1);
  };
  flood.Post(0);
  EXPECT_TRUE(Eventually([&] { return otherWork; }));
  EXPECT_LT(flood.Received.size(), kEnough);
}

TEST_F(KZMessagesTest, FreesThePayloadDeliveredOrNot) {
  const auto pool = std::make_shared<TPayloadPool>();
  const auto post = [&](TRecorder& recorder) {
    PostMessage(recorder, 1129, 7, MakePayload(pool, "payload"));
  };
  TRecorder recorder;
  recorder.OnMessage = [&](const TKZMessage& message) {
    EXPECT_EQ(MessagePayload(message), "payload");
    throw KZException("after the payload was taken");
  };
  post(recorder);
  ProcessMessages();
  EXPECT_EQ(recorder.Received.size(), 1U);
  EXPECT_EQ(pool.use_count(), 1) << "used wrappers keep no pool alive";

  auto gone = std::make_unique<TRecorder>();
  gone->OnMessage = [&](const TKZMessage&) { gone.reset(); };
  for (int i = 0; i < 2; ++i) post(*gone);
  ProcessMessages();
  EXPECT_EQ(gone, nullptr);
  StopDelivery();
  post(recorder);
  StopMessages();
  post(recorder);
  EXPECT_EQ(pool.use_count(), 1);
}

TEST_F(KZMessagesTest, DeliversNothingFromTheEndOfTheApplicationOn) {
  TRecorder recorder;
  EXPECT_TRUE(CallInMainThread([&] { recorder.Post(0); })) << "at once, in the main thread";
  recorder.OnMessage = [&](auto&) { FApplication->Terminate(); };
  const std::int64_t start = SystemTickCount();
  FApplication->Run([&, rounds = 0]() mutable {
    if (++rounds == 1) throw SoftException("on purpose");
    recorder.Post(1);
  });
  EXPECT_GE(SystemTickCount() - start, 1'000) << "failing rounds do not spin";
  EXPECT_FALSE(CallInMainThread([] {}));
  ProcessMessages();
  FApplication.reset();
  ProcessMessages();
  EXPECT_EQ(recorder.Received.size(), 1U);
}

// Calls that wait when the end begins, in whatever way it does, return without having run.
TEST_F(KZMessagesTest, CallsThatWaitAtTheEndReturnWithoutHavingRun) {
  for (const std::string end : {"stop", "stop and start", "terminate"}) {
    SCOPED_TRACE(end);
    StartMessages();
    StopDelivery();
    std::atomic<int> waiting = 0;
    int ran = 0;  // Main thread only.
    const TCrew crew(5, [&](int) {
      ++waiting;
      EXPECT_FALSE(CallInMainThread([&] { ++ran; }));
    });
    ASSERT_TRUE(Eventually([&] { return waiting == 5; }));
    EXPECT_FALSE(CallInMainThread([&] { ++ran; }));
    end == "terminate" ? FApplication->Terminate() : StopMessages();
    if (end == "stop and start") StartMessages();
    ASSERT_TRUE(Eventually([&] { return crew.Finished(); }));
    ResumeDelivery();
    ProcessMessages();
    EXPECT_EQ(ran, 0);
  }
}

// The caller may not leave while its method, which uses what the caller owns, still runs.
TEST_F(KZMessagesTest, WaitsForACallThatTerminatesTheApplicationItself) {
  const TCrew crew(1, [](int) {
    bool finished = false;
    EXPECT_TRUE(CallInMainThread([&] {
      CurrentApplication()->Terminate();
      // Longer than the round after which a caller looks again.
      SleepSynchronizing(milliseconds(600));
      finished = true;
    }));
    EXPECT_TRUE(finished);
  });
  EXPECT_TRUE(Eventually([&] { return crew.Finished(); }));
}

TEST_F(KZMessagesTest, StartsAndStopsAgainAndAgainWhileThreadsPostAndCall) {
  StopMessages();
  TRecorder recorder;
  std::atomic<bool> enough = false;
  std::atomic<std::int64_t> reportedRun = 0;
  std::int64_t ran = 0;  // Main thread only.
  const TCrew crew(4, [&](int index) {
    for (int i = 0; !enough; ++i) {
      // Now and then a pause, or the machine does nothing but post.
      if (i % 64 == 0) SystemClock().Sleep(milliseconds(1));
      PostMessage(recorder, 1129, 0, std::make_unique<std::string>("payload"));
      if (index % 2 > 0) continue;
      reportedRun += CallInMainThread([&] {
        ran += IsMainThread() ? 1 : 0;
        if (i % 2 == 0) throw KZException("reported, and run all the same");
      });
    }
  });
  for (int round = 0; round < 50; ++round) {
    StartMessages();
    StartMessages();
    EXPECT_TRUE(recorder.Receives(recorder.Received.size() + 1));
    StopMessages();
    StopMessages();
  }
  enough = true;
  ASSERT_TRUE(Eventually([&] { return crew.Finished(); }));
  EXPECT_EQ(ran, reportedRun);
  EXPECT_LT(MessageStatistics().LatencySumMs, 60'000 * MessageStatistics().Delivered);
}

struct sigaction ActionOf(int signalNumber) {
  struct sigaction action {};
  ::sigaction(signalNumber, nullptr, &action);
  return action;
}

TEST(TKZCustomApplicationTest, EndsOnSignalsAndGivesThemBack) {
  ::signal(SIGCHLD, SIG_IGN);
  for (const int ending : {SIGINT, SIGTERM}) {
    EXPECT_EQ(ApplicationState(), TApplicationState::Absent);
    TKZCustomApplication application;
    EXPECT_THROW(TKZCustomApplication(), KZException) << "the only one";
    for (int i = 0; i < 2; ++i) application.Initialize();
    EXPECT_EQ(ActionOf(SIGHUP).sa_handler, SIG_DFL);
    EXPECT_EQ(ActionOf(SIGCHLD).sa_handler, SIG_DFL) << "children are reaped";
    EXPECT_NE(ActionOf(ending).sa_flags & SA_RESTART, 0);
    ::raise(SIGPIPE);
    EXPECT_FALSE(application.Terminated());
    ::raise(ending);
    EXPECT_TRUE(application.Terminated() && application.Stopping().IsCancelled());
    // Without a wake-up this would take an hour, and the test's time limit would end it.
    CheckSynchronize(std::chrono::hours(1));
  }
  for (const int each : {SIGINT, SIGTERM, SIGPIPE}) EXPECT_EQ(ActionOf(each).sa_handler, SIG_DFL);
  EXPECT_EQ(::signal(SIGCHLD, SIG_DFL), SIG_IGN);
}

}  // namespace
}  // namespace guardian
