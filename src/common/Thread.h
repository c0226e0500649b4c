#pragma once

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>

#include "common/Event.h"

namespace guardian {

// The kernel's id of the calling thread, the one that ps -L and top -H show.
[[nodiscard]] std::int32_t CurrentThreadId() noexcept;

inline constexpr std::size_t kThreadStackBytes = 10'485'760;

// The base of every thread: a name, a stack size, a request to end, an end that can be waited for.
// Owner: the object that creates it. The destructor asks the thread to end and joins it, so a
// derived class whose Execute uses its own fields calls Join first in its own destructor.
// Threads: Start, Join and the destructor by the owner; the rest by any thread.
// Lifetime: what Execute uses must outlive the join.
class TThread {
 public:
  // What escapes Execute goes to the process-wide handler (below), in the thread itself.
  using TExceptionHandler =
      std::function<void(const std::string& threadName, std::exception_ptr error)>;

  explicit TThread(std::string name, std::size_t stackBytes = kThreadStackBytes);
  virtual ~TThread();
  TThread(const TThread&) = delete;
  TThread& operator=(const TThread&) = delete;

  // Starts the thread with all signals blocked but the fatal ones; its name is its first progress.
  // Once per object. Throws ESystemError.
  void Start();

  // Asks the thread to end; returns at once.
  void Terminate();
  [[nodiscard]] bool Terminated() const noexcept { return FTerminated.load(); }

  // True when Execute has returned.
  [[nodiscard]] bool Finished() const noexcept { return FFinished.load(); }

  // Waits until the thread has finished or the time is over; returns whether it has. In the main
  // thread the wait runs synchronise requests, so that a thread that waits for the main thread
  // can end.
  bool WaitFinished(std::chrono::milliseconds timeout);

  // Terminate, then waits without limit as WaitFinished does, and releases the thread. Does
  // nothing for a thread that was not started.
  void Join();

  // The same for a thread that never waits for the main thread: runs no requests meanwhile, so that
  // the caller need not expect anything to have changed.
  void JoinWithoutRequests();

  // Asks a started thread to end, waits for at most the grace and frees it; returns whether it has
  // ended. One that stands still is never freed and ends with the process, so it uses nothing but
  // what lives as long. Threads: as the thread's owner.
  static bool EndOrLeaveBehind(std::unique_ptr<TThread> thread, std::chrono::milliseconds grace);

  [[nodiscard]] const std::string& Name() const noexcept { return FName; }

  // The kernel's thread id; 0 before the thread runs.
  [[nodiscard]] std::int32_t ThreadId() const noexcept { return FThreadId.load(); }

  // Sets the handler of exceptions that escape a thread, an empty one for the default, a line on
  // standard error. Main thread, before threads start.
  static void SetExceptionHandler(TExceptionHandler handler);

 protected:
  // The thread's work; returns soon after Terminated() is true.
  virtual void Execute() = 0;

  // Called by Terminate in the caller's thread: wakes Execute from its waits.
  virtual void OnTerminate() {}

  // Runs in the thread after Execute, however that ended.
  virtual void OnFinished() {}

 private:
  static void* Run(void* self);
  void RunWhole();
  void RunGuarded(const std::function<void()>& work);
  void Release();

  const std::string FName;
  const std::size_t FStackBytes;
  pthread_t FHandle{};
  bool FStarted = false;                    // Owner only.
  std::atomic<bool> FTerminated = false;    // Atomic: a plain request flag.
  std::atomic<bool> FFinished = false;      // Atomic: polled by any thread.
  std::atomic<std::int32_t> FThreadId = 0;  // Atomic: read by reports.
  TKZEvent FFinishedEvent{"ThreadFinished", TEventReset::Manual};
};

// A thread whose work is a function.
class TFunctionThread final : public TThread {
 public:
  TFunctionThread(std::string name, std::function<void()> work,
                  std::size_t stackBytes = kThreadStackBytes)
      : TThread(std::move(name), stackBytes), FWork(std::move(work)) {}
  ~TFunctionThread() override { Join(); }

 private:
  void Execute() override { FWork(); }

  std::function<void()> FWork;
};

}  // namespace guardian
