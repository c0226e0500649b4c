#include "common/Event.h"

#include <utility>

namespace guardian {

TKZEvent::TKZEvent(std::string name, TEventReset reset, TClock& clock)
    : FName(std::move(name)), FReset(reset), FClock(clock) {}

void TKZEvent::Signal() {
  {
    const TMutexLock lock(FLock);
    FSignalled = true;
  }
  // Notified without the lock, which the woken thread takes at once.
  if (FReset == TEventReset::Auto) {
    FChanged.NotifyOne();
  } else {
    FChanged.NotifyAll();
  }
}

void TKZEvent::Reset() {
  const TMutexLock lock(FLock);
  FSignalled = false;
}

bool TKZEvent::WaitFor(std::chrono::milliseconds timeout) {
  const TMutexLock lock(FLock);
  const bool signalled = FClock.WaitUntil(FLock, FChanged, FClock.TickCount() + timeout.count(),
                                          [this]() KZ_REQUIRES(FLock) { return FSignalled; });
  if (signalled && FReset == TEventReset::Auto) FSignalled = false;
  return signalled;
}

}  // namespace guardian
