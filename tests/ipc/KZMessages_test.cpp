#include "ipc/KZMessages.h"

#include <gmock/gmock.h>
#include <pthread.h>

#include <atomic>
#include <mutex>
#include <stdexcept>

#include "common/ErrorLog.h"
#include "common/Exceptions.h"
#include "diagnostics/KZCheckpoints.h"
#include "ipc/MessageUnit.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;

// The unit running under an application, as in the process.
class KZMessagesTest : public testing::Test {
 protected:
  KZMessagesTest() { StartMessages(); }
  ~KZMessagesTest() override {
    StopMessages();
    ResumeDelivery();
    SetMessageExceptionReporter({});
  }

  void EndApplication() {
    CurrentApplication()->Terminate();
    FApplication.reset();
  }

  bool Receives(const TRecorder& recorder, std::size_t count) {
    return Eventually([&] { return recorder.Received.size() >= count; });
  }

  std::unique_ptr<TKZCustomApplication> FApplication = std::make_unique<TKZCustomApplication>();
};

TEST_F(KZMessagesTest, DeliversInTheOrderInWhichSeveralThreadsPosted) {
  constexpr int kThreads = 4;
  constexpr int kEach = 2000;
  TRecorder recorder;
  std::mutex turn;
  std::int64_t next = 0;
  const TCrew crew(kThreads, [&](int) {
    for (int i = 0; i < kEach; ++i) {
      const std::lock_guard<std::mutex> lock(turn);
      recorder.Post(next++);
    }
  });

  ASSERT_TRUE(Receives(recorder, kThreads * kEach));
  for (std::size_t i = 0; i < recorder.Received.size(); ++i) {
    ASSERT_EQ(recorder.Received[i], static_cast<std::int64_t>(i));
  }
}

TEST_F(KZMessagesTest, HandsTheReceiverAllFieldsInTheMainThread) {
  TRecorder recorder;
  TKZMessage seen;
  bool inMainThread = false;
  recorder.OnMessage = [&](const TKZMessage& message) {
    seen = message;
    inMainThread = IsMainThread();
  };
  const TCrew crew(1, [&](int) { PostMessage(recorder, 0xFFFFFFFF, -1, INT64_MAX, INT64_MIN); });

  ASSERT_TRUE(Receives(recorder, 1));
  EXPECT_TRUE(inMainThread);
  EXPECT_EQ(seen.Msg, 0xFFFFFFFF);
  EXPECT_EQ(seen.WParam, -1);
  EXPECT_EQ(seen.LParam, INT64_MAX);
  EXPECT_EQ(seen.Result, INT64_MIN);
}

TEST_F(KZMessagesTest, LosesNothingBehindAReceiverThatRaises) {
  const TTempFolder folder;
  ASSERT_TRUE(ErrorLog().Open(folder.Path("error.log")));
  std::vector<std::string> titles;
  SetMessageExceptionReporter([&](const std::exception_ptr& error, const std::string& title) {
    titles.push_back(title);
    std::rethrow_exception(error);
  });
  TRecorder recorder;
  recorder.OnMessage = [](const TKZMessage& message) {
    if (message.WParam == 1) throw SoftException("first");
    if (message.WParam == 2) throw std::runtime_error("second");
    if (message.WParam == 3) throw 3;
  };
  for (int i = 1; i <= 4; ++i) recorder.Post(i);

  const bool received = Receives(recorder, 4);
  ErrorLog().Close();
  ASSERT_TRUE(received);
  EXPECT_THAT(recorder.Received, ElementsAre(1, 2, 3, 4));
  EXPECT_THAT(titles, testing::Each("Processing KZMsg"));
  EXPECT_EQ(titles.size(), 3U);
  const std::string log = folder.Read("error.log");
  EXPECT_THAT(log, HasSubstr("EXCEPTION Processing KZMsg: first\n"));
  EXPECT_THAT(log, HasSubstr("EXCEPTION Processing KZMsg: second\n"));
  EXPECT_THAT(log, HasSubstr("EXCEPTION Processing KZMsg: unknown exception\n"));
}

TEST_F(KZMessagesTest, ContinuesInANestedProcessMessagesWithoutLossOrReordering) {
  TRecorder recorder;
  bool nested = false;
  recorder.OnMessage = [&](const TKZMessage& message) {
    if (message.WParam != 1) return;
    recorder.Post(4);
    nested = true;
    ProcessMessages();
    nested = false;
    recorder.Post(5);
  };
  for (int i = 1; i <= 3; ++i) recorder.Post(i);

  ProcessMessages();
  EXPECT_THAT(recorder.Received, ElementsAre(1, 2, 3, 4, 5));
  EXPECT_FALSE(nested);
}

TEST_F(KZMessagesTest, KeepsTheRestInOrderWhileDeliveryIsStopped) {
  TRecorder recorder;
  recorder.OnMessage = [&](const TKZMessage& message) {
    if (message.WParam != 2) return;
    recorder.Post(5);
    StopDelivery();
  };
  for (int i = 1; i <= 4; ++i) recorder.Post(i);
  ProcessMessages();
  ProcessMessages();
  EXPECT_TRUE(DeliveryStopped());
  EXPECT_THAT(recorder.Received, ElementsAre(1, 2));

  ResumeDelivery();
  ASSERT_TRUE(Receives(recorder, 5));
  EXPECT_THAT(recorder.Received, ElementsAre(1, 2, 3, 4, 5));

  // With nothing posted behind the rest, which alone has to bring its delivery about.
  recorder.OnMessage = [](const TKZMessage& message) {
    if (message.WParam == 6) StopDelivery();
  };
  recorder.Post(6);
  recorder.Post(7);
  ProcessMessages();
  EXPECT_EQ(recorder.Received.back(), 6);
  ResumeDelivery();
  ASSERT_TRUE(Receives(recorder, 7));
}

TEST_F(KZMessagesTest, DeliversNothingMoreOnceAHandlerTerminatesTheApplication) {
  TRecorder recorder;
  recorder.OnMessage = [](const TKZMessage&) { CurrentApplication()->Terminate(); };
  recorder.Post(1);
  recorder.Post(2);
  FApplication->Run();
  ProcessMessages();
  EXPECT_THAT(recorder.Received, ElementsAre(1));

  EndApplication();
  ProcessMessages();
  EXPECT_THAT(recorder.Received, ElementsAre(1)) << "without an application";
}

TEST_F(KZMessagesTest, DropsTheMessagesOfADestroyedReceiverOnly) {
  TRecorder recorder;
  auto inBatch = std::make_unique<TRecorder>();
  auto inList = std::make_unique<TRecorder>();
  const auto mustNotReceive = [](const TKZMessage&) { ADD_FAILURE() << "a receiver that is gone"; };
  inBatch->OnMessage = mustNotReceive;
  inList->OnMessage = mustNotReceive;
  recorder.OnMessage = [&](const TKZMessage& message) {
    if (message.WParam != 1) return;
    inBatch.reset();
    inList->Post(0);
    recorder.Post(3);
    inList.reset();
  };
  recorder.Post(1);
  inBatch->Post(0);
  recorder.Post(2);
  inBatch->Post(0);

  ProcessMessages();
  EXPECT_THAT(recorder.Received, ElementsAre(1, 2, 3));
}

TEST_F(KZMessagesTest, LetsAReceiverDestroyItselfInItsHandler) {
  auto receiver = std::make_unique<TRecorder>();
  receiver->OnMessage = [&](const TKZMessage&) { receiver.reset(); };
  receiver->Post(1);
  receiver->Post(2);
  ProcessMessages();
  EXPECT_EQ(receiver, nullptr);
}

// What is not delivered is freed; the address sanitizer sees it when it is not.
TEST_F(KZMessagesTest, FreesThePayloadDeliveredOrNot) {
  const auto post = [](TRecorder& recorder, const std::string& bytes) {
    PostMessage(recorder, 1129, 7, std::make_unique<std::string>(bytes));
  };
  const std::string bytes("a payload\0 with a zero, too long for a short text", 48);
  TRecorder recorder;
  std::vector<std::string> payloads;
  recorder.OnMessage = [&](const TKZMessage& message) {
    EXPECT_EQ(message.Result, static_cast<std::int64_t>(MessagePayload(message).size()));
    payloads.emplace_back(MessagePayload(message));
    if (payloads.size() == 1) throw KZException("after the payload was taken");
  };
  post(recorder, bytes);
  post(recorder, "");
  ProcessMessages();
  EXPECT_THAT(payloads, ElementsAre(bytes, ""));

  auto gone = std::make_unique<TRecorder>();
  post(*gone, bytes);
  gone.reset();
  StopDelivery();
  post(recorder, bytes);
  StopMessages();
  post(recorder, bytes);
  ProcessMessages();
  EXPECT_EQ(payloads.size(), 2U);
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

  StopMessages();
  StartMessages();
  EXPECT_EQ(MessageStatistics().Delivered, 0);
  EXPECT_EQ(MessageStatistics().LatencySumMs, 0);
}

TEST_F(KZMessagesTest, RunsTheCallsOfSeveralThreadsInTheMainThread) {
  constexpr int kThreads = 4;
  constexpr int kEach = 50;
  int ran = 0;  // Main thread only.
  std::atomic<int> returned = 0;
  const TCrew crew(kThreads, [&](int) {
    for (int i = 0; i < kEach; ++i) {
      int mine = 0;
      const bool result = CallInMainThread([&] {
        ran += IsMainThread() ? 1 : 0;
        mine = i + 1;
      });
      returned += result && mine == i + 1 ? 1 : 0;
    }
  });
  ASSERT_TRUE(Eventually([&] { return crew.Finished(); }));
  EXPECT_EQ(ran, kThreads * kEach);
  EXPECT_EQ(returned, kThreads * kEach);
}

TEST_F(KZMessagesTest, RunsACallInItsTurnAndReturnsAlsoWhenItRaises) {
  TRecorder recorder;
  bool result = false;
  const TCrew crew(1, [&](int) {
    recorder.Post(1);
    result = CallInMainThread([&] {
      recorder.Received.push_back(2);
      throw KZException("in the call");
    });
    recorder.Post(3);
  });
  ASSERT_TRUE(Eventually([&] { return crew.Finished(); }));
  ASSERT_TRUE(Receives(recorder, 3));
  EXPECT_TRUE(result);
  EXPECT_THAT(recorder.Received, ElementsAre(1, 2, 3));
}

TEST_F(KZMessagesTest, RunsACallOfTheMainThreadAtOnce) {
  int ran = 0;
  EXPECT_TRUE(CallInMainThread([&] { ++ran; }));
  EXPECT_TRUE(CallInMainThread([] { throw KZException("reported, not passed on"); }));
  StopDelivery();
  EXPECT_FALSE(CallInMainThread([&] { ++ran; }));
  StopMessages();
  EXPECT_FALSE(CallInMainThread([&] { ++ran; }));
  EXPECT_EQ(ran, 1);
}

// Calls that wait when the end begins, in whatever way it does, return without having run.
class CallsAtTheEndTest : public KZMessagesTest, public testing::WithParamInterface<const char*> {
 protected:
  static constexpr int kThreads = 5;

  void BeginTheEnd() {
    const std::string way = GetParam();
    if (way == "StopMessages") StopMessages();
    if (way == "Terminate") CurrentApplication()->Terminate();
    if (way == "StopAndStart") {
      StopMessages();
      StartMessages();
    }
  }
};

INSTANTIATE_TEST_SUITE_P(Ways, CallsAtTheEndTest,
                         testing::Values("StopMessages", "Terminate", "StopAndStart"),
                         [](const auto& way) { return std::string(way.param); });

TEST_P(CallsAtTheEndTest, ReturnWithoutHavingRun) {
  StopDelivery();
  std::atomic<int> waiting = 0;
  std::atomic<int> refused = 0;
  int ran = 0;  // Main thread only.
  const TCrew crew(kThreads, [&](int) {
    ++waiting;
    refused += CallInMainThread([&] { ++ran; }) ? 0 : 1;
  });
  ASSERT_TRUE(Eventually([&] { return waiting == kThreads; }));
  BeginTheEnd();
  ASSERT_TRUE(Eventually([&] { return crew.Finished(); }));
  ResumeDelivery();
  ProcessMessages();
  EXPECT_EQ(refused, kThreads);
  EXPECT_EQ(ran, 0);
}

TEST_F(KZMessagesTest, RefusesCallsAfterTheShutdown) {
  StopMessages();
  bool result = true;
  bool ran = false;
  const TCrew crew(1, [&](int) { result = CallInMainThread([&] { ran = true; }); });
  ASSERT_TRUE(Eventually([&] { return crew.Finished(); }));
  EXPECT_FALSE(result);
  EXPECT_FALSE(ran);
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
      const std::int64_t end = SystemTickCount() + 600;
      while (SystemTickCount() < end) CheckSynchronize(milliseconds(10));
      finished = true;
    });
    finishedFirst = finished;
  });
  ASSERT_TRUE(Eventually([&] { return crew.Finished(); }));
  EXPECT_TRUE(result);
  EXPECT_TRUE(finishedFirst);
}

TEST_F(KZMessagesTest, SurvivesAStopFromWithinAMessage) {
  TRecorder recorder;
  recorder.OnMessage = [](const TKZMessage&) { StopMessages(); };
  recorder.Post(1);
  recorder.Post(2);
  ASSERT_TRUE(Receives(recorder, 1));
  recorder.OnMessage = {};

  StartMessages();
  recorder.Post(3);
  ASSERT_TRUE(Receives(recorder, 2));
  EXPECT_THAT(recorder.Received, ElementsAre(1, 3));
}

TEST(KZMessagesUnitTest, StartsAndStopsAgainAndAgainWhileThreadsPostAndCall) {
  const TKZCustomApplication application;
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
  for (int round = 0; round < 100; ++round) {
    StartMessages();
    const std::size_t before = recorder.Received.size();
    EXPECT_TRUE(Eventually([&] { return recorder.Received.size() > before; }));
    StopMessages();
  }
  enough = true;
  ASSERT_TRUE(Eventually([&] { return crew.Finished(); }));
  EXPECT_EQ(ran, reportedRun);
}

class TTestThread final : public TKZThread {
 public:
  TTestThread(TThreadCreation creation, std::function<int()> work)
      : TKZThread(creation, "TestThread"), FWork(std::move(work)) {}
  ~TTestThread() override { Join(); }

  std::function<void()> AfterItsEnd = [] {};

 private:
  void Execute() override { SetExitCode(FWork()); }
  void OnFinished() override {
    TKZThread::OnFinished();
    AfterItsEnd();
  }

  const std::function<int()> FWork;
};

TEST(TKZThreadTest, StartsAtOnceOrWhenTold) {
  const auto running = CreateThread<TTestThread>(TThreadCreation::Running, [] { return 0; });
  EXPECT_EQ(running->WaitFor(milliseconds(30'000)), 0);

  const auto suspended = CreateThread<TTestThread>(TThreadCreation::Suspended, [] { return 7; });
  EXPECT_EQ(suspended->WaitFor(milliseconds(1)), -1);
  EXPECT_EQ(suspended->ThreadId(), 0);
  suspended->Start();
  EXPECT_EQ(suspended->WaitFor(milliseconds(30'000)), 7);
}

TEST(TKZThreadTest, RunsSynchroniseRequestsWhileTheMainThreadWaitsForIt) {
  bool ran = false;
  const auto thread = CreateThread<TTestThread>(TThreadCreation::Running, [&] {
    Synchronize([&] { ran = true; });
    return 3;
  });
  EXPECT_EQ(thread->WaitFor(milliseconds(30'000)), 3);
  EXPECT_TRUE(ran);
}

TEST(TKZThreadTest, HasATenMebibyteStackAndReleasesItsCheckpointRecord) {
  KZCP::Init();
  std::size_t stackBytes = 0;
  const auto checkpointSeenFromOutside = [] {
    const std::int32_t threadId = CurrentThreadId();
    std::string checkpoint;
    Synchronize([&] { checkpoint = KZCP::CurrentCP(threadId); });
    return checkpoint;
  };
  const auto thread = CreateThread<TTestThread>(TThreadCreation::Suspended, [&] {
    KZCP::Checkpoint("TestThread.Execute");
    EXPECT_EQ(checkpointSeenFromOutside(), "TestThread.Execute");
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstacksize(&attributes, &stackBytes);
    pthread_attr_destroy(&attributes);
    return 0;
  });
  thread->AfterItsEnd = [&] { EXPECT_EQ(checkpointSeenFromOutside(), "N/A"); };
  thread->Start();
  ASSERT_EQ(thread->WaitFor(milliseconds(30'000)), 0);
  EXPECT_GE(stackBytes, 10'485'760U);
  KZCP::Fini();
}

}  // namespace
}  // namespace guardian
