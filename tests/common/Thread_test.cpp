#include "common/Thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <array>
#include <atomic>

#include "common/Exceptions.h"
#include "common/FatalSignals.h"
#include "common/MainThread.h"

namespace guardian {
namespace {

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
  EXPECT_FALSE(thread.WaitFinished(std::chrono::milliseconds(0)));
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

}  // namespace
}  // namespace guardian
