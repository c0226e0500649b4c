#include "ipc/KZMessages.h"

#include <pthread.h>

#include <deque>
#include <map>
#include <mutex>
#include <random>

#include "common/Exceptions.h"
#include "diagnostics/KZCheckpoints.h"
#include "ipc/MessageUnit.h"
#include "support/ErrorLogInFolder.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

using KZMessagesTest = TUnitsTest;

TEST_F(KZMessagesTest, DeliversInTheOrderInWhichSeveralThreadsPosted) {
  constexpr int kThreads = 4;
  constexpr int kEach = 2000;
  TRecorder recorder;
  TKZMessage seen;
  recorder.OnMessage = [&](const TKZMessage& message) {
    ASSERT_TRUE(IsMainThread());
    seen = message;
  };
  std::mutex turn;
  std::int64_t next = 0;
  const TCrew crew(kThreads, [&](int) {
    for (int i = 0; i < kEach; ++i) {
      const std::lock_guard<std::mutex> lock(turn);
      recorder.Post(next++);
    }
  });
  ASSERT_TRUE(recorder.Receives(kThreads * kEach));
  for (std::size_t i = 0; i < recorder.Received.size(); ++i) {
    ASSERT_EQ(recorder.Received[i], static_cast<std::int64_t>(i));
  }
  PostMessage(recorder, 0xFFFFFFFF, -1, INT64_MAX, INT64_MIN);
  ProcessMessages();
  EXPECT_EQ(std::tie(seen.Msg, seen.WParam), std::tuple(0xFFFFFFFF, -1));
  EXPECT_EQ(std::tie(seen.LParam, seen.Result), std::tuple(INT64_MAX, INT64_MIN));
}

TEST_F(KZMessagesTest, LosesNothingBehindAReceiverThatRaises) {
  const TErrorLogInFolder log;
  std::string titles;
  SetMessageExceptionReporter([&](const std::exception_ptr& error, const std::string& title) {
    titles += title + ";";
    std::rethrow_exception(error);
  });
  TRecorder recorder;
  recorder.OnMessage = [](const TKZMessage& message) {
    if (message.WParam == 1) throw SoftException("first");
    if (message.WParam == 2) throw 2;
  };
  for (int i = 1; i <= 3; ++i) recorder.Post(i);
  ASSERT_TRUE(recorder.Receives(3));
  EXPECT_EQ(titles, "Processing KZMsg;Processing KZMsg;");
  EXPECT_EQ(log.Text(),
            "EXCEPTION Processing KZMsg: first\nEXCEPTION Reporting KZMsg: first\n"
            "EXCEPTION Processing KZMsg: unknown exception\n"
            "EXCEPTION Reporting KZMsg: unknown exception\n");
}

// Random work from outside and in the handlers. What is queued, oldest first, is the unit's model.
TEST_F(KZMessagesTest, DeliversAsAQueueDoesWhateverTheHandlersDo) {
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
  bool otherWork = false;
  const TCrew crew = AskMainThread([&] { otherWork = true; });
  flood.OnMessage = [&](const TKZMessage& message) {
    if (!otherWork && flood.Received.size() < kEnough) flood.Post(message.WParam + 1);
  };
  flood.Post(0);
  EXPECT_TRUE(Eventually([&] { return otherWork; }));
  EXPECT_LT(flood.Received.size(), kEnough);
}

TEST_F(KZMessagesTest, FreesThePayloadDeliveredOrNot) {
  const auto pool = std::make_shared<TPayloadPool>();
  const std::string bytes("a payload\0 with a zero, too long for a short text", 48);
  const auto post = [&](TRecorder& recorder) {
    PostMessage(recorder, 1129, 7, MakePayload(pool, bytes));
  };
  TRecorder recorder;
  recorder.OnMessage = [&](const TKZMessage& message) {
    EXPECT_TRUE(MessagePayload(message) == bytes);
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
  ProcessMessages();
  StopMessages();
  post(recorder);
  ProcessMessages();
  EXPECT_EQ(recorder.Received.size(), 1U);
  EXPECT_EQ(pool.use_count(), 1);
}

TEST_F(KZMessagesTest, CountsDeliveriesAndTheirTimeInTheQueue) {
  TRecorder recorder;
  recorder.Post(1);
  recorder.Post(2);
  const std::int64_t later = SystemTickCount() + 20;
  while (SystemTickCount() < later) SystemClock().Sleep(milliseconds(1));
  ProcessMessages();
  EXPECT_EQ(MessageStatistics().Delivered, 2);
  EXPECT_GE(MessageStatistics().LatencySumMs, 40);
}

// Were wake-ups lost, each call would wait for half a second.
TEST_F(KZMessagesTest, RunsTheCallsOfSeveralThreadsInTheMainThread) {
  constexpr int kThreads = 4;
  constexpr int kEach = 100;
  int ran = 0;  // Main thread only.
  std::atomic<int> returned = 0;
  const TCrew crew(kThreads, [&](int) {
    for (int i = 0; i < kEach; ++i) {
      int mine = 0;
      const bool result = CallInMainThread([&] {
        ran += IsMainThread() ? 1 : 0;
        mine = i + 1;
        if (i % 2 == 0) throw KZException("reported, and run all the same");
      });
      returned += result && mine == i + 1 ? 1 : 0;
    }
  });
  ASSERT_TRUE(Eventually([&] { return crew.Finished(); }));
  EXPECT_EQ(ran, kThreads * kEach);
  EXPECT_EQ(returned, kThreads * kEach);
}

TEST_F(KZMessagesTest, RunsACallOfTheMainThreadAtOnceWhereMessagesAreDelivered) {
  TRecorder recorder;
  int ran = 0;
  const auto call = [&] { return CallInMainThread([&] { ++ran; }); };
  EXPECT_TRUE(call());
  StopDelivery();
  EXPECT_FALSE(call());
  ResumeDelivery();
  recorder.OnMessage = [&](const TKZMessage&) { FApplication->Terminate(); };
  for (int i = 0; i < 2; ++i) recorder.Post(i);
  FApplication->Run();
  ProcessMessages();
  FApplication.reset();
  ProcessMessages();
  EXPECT_EQ(recorder.Received.size(), 1U);
  StopMessages();
  InThread([&] { EXPECT_FALSE(call()); });
  EXPECT_EQ(ran, 1);
}

// Calls that wait when the end begins, in whatever way it does, return without having run.
TEST_F(KZMessagesTest, CallsThatWaitAtTheEndReturnWithoutHavingRun) {
  constexpr int kThreads = 5;
  for (const std::string end : {"stop", "stop and start", "terminate"}) {
    SCOPED_TRACE(end);
    StartMessages();
    StopDelivery();
    std::atomic<int> waiting = 0;
    std::atomic<int> refused = 0;
    int ran = 0;  // Main thread only.
    const TCrew crew(kThreads, [&](int) {
      ++waiting;
      refused += CallInMainThread([&] { ++ran; }) ? 0 : 1;
    });
    ASSERT_TRUE(Eventually([&] { return waiting == kThreads; }));
    end == "terminate" ? FApplication->Terminate() : StopMessages();
    if (end == "stop and start") StartMessages();
    ASSERT_TRUE(Eventually([&] { return crew.Finished(); }));
    ResumeDelivery();
    ProcessMessages();
    EXPECT_EQ(refused, kThreads);
    EXPECT_EQ(ran, 0);
  }
}

// The caller may not leave while its method, which uses what the caller owns, still runs.
TEST_F(KZMessagesTest, WaitsForACallThatTerminatesTheApplicationItself) {
  bool result = false;
  bool finishedFirst = false;
  const TCrew crew(1, [&](int) {
    bool finished = false;
    result = CallInMainThread([&] {
      CurrentApplication()->Terminate();
      // Longer than the round after which a caller looks again.
      SleepSynchronizing(milliseconds(600));
      finished = true;
    });
    finishedFirst = finished;
  });
  ASSERT_TRUE(Eventually([&] { return crew.Finished(); }));
  EXPECT_TRUE(result);
  EXPECT_TRUE(finishedFirst);
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
      if (index % 2 == 0) reportedRun += CallInMainThread([&] { ++ran; }) ? 1 : 0;
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
}

class TTestThread final : public TKZThread {
 public:
  explicit TTestThread(TThreadCreation creation) : TKZThread(creation, "TestThread") {}
  ~TTestThread() override { Join(); }

  std::size_t StackBytes = 0;

 private:
  void Execute() override {
    KZCP::Checkpoint("TestThread.Execute");
    Synchronize([this] { EXPECT_EQ(KZCP::CurrentCP(ThreadId()), "TestThread.Execute"); });
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &StackBytes);
    pthread_attr_destroy(&attributes);
    SetExitCode(7);
  }
};

TEST(TKZThreadTest, StartsAtOnceOrWhenToldAndLetsTheMainThreadWork) {
  KZCP::Init();
  for (const auto creation : {TThreadCreation::Running, TThreadCreation::Suspended}) {
    const auto thread = CreateThread<TTestThread>(creation);
    if (creation == TThreadCreation::Suspended) {
      EXPECT_EQ(thread->WaitFor(milliseconds(1)), -1);
      thread->Start();
    }
    EXPECT_EQ(thread->WaitFor(milliseconds(30'000)), 7);
    EXPECT_GE(thread->StackBytes, 10'485'760U);
    EXPECT_EQ(KZCP::CurrentCP(thread->ThreadId()), "N/A") << "its record is released";
  }
  KZCP::Fini();
}

}  // namespace
}  // namespace guardian
