#include "common/Timer.h"

#include <utility>

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
  while (WaitUntilDue(thread)) CallHandler();
}

// Returns false when the thread is to end.
bool TKZTimer::WaitUntilDue(const TThread& thread) {
  const TMutexLock lock(FLock);
  while (!thread.Terminated()) {
    if (!FEnabled) {
      FChanged.Wait(FLock);
      continue;
    }
    const std::int64_t due = FDueTick;
    const bool changed = FClock.WaitUntil(FLock, FChanged, due, [&]() KZ_REQUIRES(FLock) {
      return thread.Terminated() || !FEnabled || FDueTick != due;
    });
    if (changed) continue;
    FDueTick = FClock.TickCount() + FInterval.count();
    return true;
  }
  return false;
}

void TKZTimer::CallHandler() {
  try {
    FHandler();
  } catch (...) {
    FOnError(std::current_exception());
  }
}

void TKZTimer::Wake() {
  const TMutexLock lock(FLock);
  FChanged.NotifyAll();
}

}  // namespace guardian
