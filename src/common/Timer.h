#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "common/Clock.h"
#include "common/Mutex.h"
#include "common/Thread.h"

namespace guardian {

// Calls its handler once an interval, on a thread of its own that has the timer's name:
//
//   TKZTimer timer(
//       "GuardianTimer", std::chrono::seconds(10), [&] { service.Tick(); },
//       [&](std::exception_ptr error) { service.Report(error); });
//   timer.SetEnabled(true);
//
// It is created disabled; the thread starts with the first SetEnabled(true). The period counts from
// the start of one call to the start of the next. A handler that takes longer than the interval is
// called again at once, and missed calls are not made up for. A changed interval and
// SetEnabled(true) start a full new period. What the handler or the wait throws goes to the error
// handler, and the timer goes on, whatever the error handler throws in its turn.
// Owner: the object whose handler it calls; the destructor stops it and joins the thread. It may be
// destroyed in the main thread while the handler waits for the main thread.
// Threads: any thread, the handler included, may call anything but Stop and the destructor, which
// belong to the owner.
// Lifetime: handlers and clock outlive the timer.
class TKZTimer {
 public:
  using THandler = std::function<void()>;
  using TErrorHandler = std::function<void(std::exception_ptr)>;

  TKZTimer(std::string name, std::chrono::milliseconds interval, THandler handler,
           TErrorHandler onError, TClock& clock = SystemClock());
  ~TKZTimer();
  TKZTimer(const TKZTimer&) = delete;
  TKZTimer& operator=(const TKZTimer&) = delete;

  void SetInterval(std::chrono::milliseconds interval) KZ_EXCLUDES(FLock);
  void SetEnabled(bool enabled) KZ_EXCLUDES(FLock);

  // Disables the timer and waits for the end of a call that is under way. Must not be called from
  // the handler.
  void Stop() KZ_EXCLUDES(FLock);

 private:
  class TTimerThread;

  void Execute(const TThread& thread) KZ_EXCLUDES(FLock);
  bool WaitUntilDue(const TThread& thread) KZ_EXCLUDES(FLock);
  void PauseAfterFailure(const TThread& thread) KZ_EXCLUDES(FLock);
  void CallHandler() noexcept;
  void ReportFailure() noexcept;
  void Wake() KZ_EXCLUDES(FLock);

  const std::string FName;
  const THandler FHandler;
  const TErrorHandler FOnError;
  TClock& FClock;
  TMutex FLock;
  TCondition FChanged;
  std::chrono::milliseconds FInterval KZ_GUARDED_BY(FLock);
  bool FEnabled KZ_GUARDED_BY(FLock) = false;
  std::int64_t FDueTick KZ_GUARDED_BY(FLock) = 0;
  std::unique_ptr<TThread> FThread KZ_GUARDED_BY(FLock);
};

}  // namespace guardian
