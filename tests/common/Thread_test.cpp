#include "common/Thread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>

#include "common/Exceptions.h"
#include "common/MainThread.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

// Waits for its termination, and counts what happens to it.
class TWaitingThread final : public TThread {
 public:
  TWaitingThread() : TThread("WaitingThreadWithALongName") {}
  ~TWaitingThread() override { Join(); }

  std::atomic<int> FinishedCalls = 0;
  std::exception_ptr Failure;

 private:
  void Execute() override {
    while (!Terminated()) FWake.WaitFor(std::chrono::hours(1));
    if (Failure) std::rethrow_exception(Failure);
  }
  void OnTerminate() override { FWake.Signal(); }
  void OnFinished() override { ++FinishedCalls; }

  TKZEvent FWake{"Wake"};
};

TEST(TThreadTest, EndsWhenAskedTo) {
  TWaitingThread thread;
  EXPECT_EQ(thread.ThreadId(), 0);
  thread.Start();
  EXPECT_FALSE(thread.WaitFinished(milliseconds(0)));
  EXPECT_FALSE(thread.Finished());
  thread.Terminate();
  EXPECT_TRUE(thread.WaitFinished(milliseconds(30'000)));
  EXPECT_TRUE(thread.Finished());
  EXPECT_EQ(thread.FinishedCalls, 1);
  EXPECT_NE(thread.ThreadId(), 0);
  EXPECT_NE(thread.ThreadId(), CurrentThreadId());
  thread.Join();
  thread.Join();
}

TEST(TThreadTest, JoinsAThreadThatWasNotStartedAtOnce) {
  TWaitingThread thread;
  thread.Join();
  EXPECT_FALSE(thread.Finished());
}

TEST(TThreadTest, RunsSynchroniseRequestsWhileTheMainThreadJoins) {
  bool ran = false;
  {
    TFunctionThread thread("Requester", [&] { Synchronize([&] { ran = true; }); });
    thread.Start();
  }
  EXPECT_TRUE(ran);
}

TEST(TThreadTest, HandsEscapedExceptionsToTheHandlerAndEndsInOrder) {
  std::string name;
  std::string message;
  TThread::SetExceptionHandler([&](const std::string& threadName, const std::exception_ptr& error) {
    name = threadName;
    try {
      std::rethrow_exception(error);
    } catch (...) {
      message = CurrentExceptionMessage();
    }
  });
  TWaitingThread thread;
  thread.Failure = std::make_exception_ptr(KZException("escaped"));
  thread.Start();
  thread.Join();
  TThread::SetExceptionHandler({});
  EXPECT_EQ(name, "WaitingThreadWithALongName");
  EXPECT_EQ(message, "escaped");
  EXPECT_TRUE(thread.Finished());
  EXPECT_EQ(thread.FinishedCalls, 1) << "however Execute ended";
}

TEST(TThreadTest, StartsWithItsStackAndWithAllSignalsBlockedButTheFatalOnes) {
  // More than any other thread here asks for: the system may hand out a used stack that is larger.
  constexpr std::size_t kStackBytes = 24 * 1'048'576;
  std::size_t stackBytes = 0;
  sigset_t blocked{};
  TFunctionThread thread(
      "Observer",
      [&] {
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &stackBytes);
        pthread_attr_destroy(&attributes);
      },
      kStackBytes);
  thread.Start();
  thread.Join();
  EXPECT_GE(stackBytes, kStackBytes);
  sigset_t ours{};
  pthread_sigmask(SIG_SETMASK, nullptr, &ours);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGUSR1}) {
    EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
    EXPECT_EQ(sigismember(&ours, signal), 0) << signal;
  }
  EXPECT_EQ(sigismember(&blocked, SIGSEGV), 0);
  EXPECT_EQ(sigismember(&blocked, SIGABRT), 0);
}

}  // namespace
}  // namespace guardian
