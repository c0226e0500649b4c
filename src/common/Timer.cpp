#include "common/Timer.h"

#include <utility>

#include "common/Console.h"

namespace guardian {

class TKZTimer::TTimerThread final : public TThread {
 public:
  explicit TTimerThread(TKZTimer& timer) : TThread(timer.FName), FTimer(timer) {}
  ~TTimerThread() override { Join(); }

 private:
  void Execute() override { FTimer.Execute(*this); }
  void OnTerminate() override { FTimer.Wake(); }

  TKZTimer& FTimer;
};

TKZTimer::TKZTimer(std::string name, std::chrono::milliseconds interval, THandler handler,
                   TErrorHandler onError, TClock& clock)
    : FName(std::move(name)),
      FHandler(std::move(handler)),
      FOnError(std::move(onError)),
      FClock(clock),
      FInterval(interval) {}

TKZTimer::~TKZTimer() { Stop(); }

void TKZTimer::Stop() {
  std::unique_ptr<TThread> thread;
  {
    const TMutexLock lock(FLock);
    FEnabled = false;
    thread = std::move(FThread);
  }
  // Joined without the lock, which the thread needs to end.
}

void TKZTimer::SetInterval(std::chrono::milliseconds interval) {
  const TMutexLock lock(FLock);
  // Setting the same interval again and again must not postpone the call for ever.
  if (interval == FInterval) return;
  FInterval = interval;
  FDueTick = FClock.TickCount() + interval.count();
  FChanged.NotifyAll();
}

void TKZTimer::SetEnabled(bool enabled) {
  const TMutexLock lock(FLock);
  FEnabled = enabled;
  FDueTick = FClock.TickCount() + FInterval.count();
  if (enabled && !FThread) {
    auto thread = std::make_unique<TTimerThread>(*this);
    thread->Start();
    FThread = std::move(thread);
  }
  FChanged.NotifyAll();
}

void TKZTimer::Execute(const TThread& thread) {
  while (!thread.Terminated()) {
    try {
      if (!WaitUntilDue(thread)) return;
    } catch (...) {
      ReportFailure();
      PauseAfterFailure(thread);
      continue;
    }
    CallHandler();
  }
}

void TKZTimer::CallHandler() noexcept {
  try {
    FHandler();
  } catch (...) {
    ReportFailure();
  }
}

// A wait that fails again and again must not spin.
void TKZTimer::PauseAfterFailure(const TThread& thread) {
  constexpr std::chrono::milliseconds kPause{100};
  const TMutexLock lock(FLock);
  if (!thread.Terminated()) FChanged.WaitFor(FLock, kPause);
}

// Returns false when the thread is to end. The predicate holds two pointers and no more, so that no
// wait allocates memory.
bool TKZTimer::WaitUntilDue(const TThread& thread) {
  const TMutexLock lock(FLock);
  while (!thread.Terminated()) {
    if (!FEnabled) {
      FChanged.Wait(FLock);
      continue;
    }
    const struct {
      const TThread& Thread;
      std::int64_t Due;
    } wait{thread, FDueTick};
    const bool changed =
        FClock.WaitUntil(FLock, FChanged, wait.Due, [this, &wait]() KZ_REQUIRES(FLock) {
          return wait.Thread.Terminated() || !FEnabled || FDueTick != wait.Due;
        });
    if (changed) continue;
    FDueTick = FClock.TickCount() + FInterval.count();
    return true;
  }
  return false;
}

// In a catch block: hands what was thrown to the error handler. A failure of that handler leaves
// nobody to tell but the debug output.
void TKZTimer::ReportFailure() noexcept {
  try {
    FOnError(std::current_exception());
  } catch (...) {
    DebugOutput("The timer goes on; a failure of its could not be reported.");
  }
}

void TKZTimer::Wake() {
  const TMutexLock lock(FLock);
  FChanged.NotifyAll();
}

}  // namespace guardian
