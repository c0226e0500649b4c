#pragma once

#include <chrono>
#include <string>

#include "common/Clock.h"
#include "common/Mutex.h"

namespace guardian {

enum class TEventReset {
  Manual,  // Stays signalled until Reset; releases every waiter.
  Auto,    // One successful wait takes the signal.
};

// A named event that threads wait for.
// Owner: the object that waits for it.
// Threads: any thread may call anything.
// Lifetime: it outlives every waiter and signaller; so does the clock.
class TKZEvent {
 public:
  explicit TKZEvent(std::string name, TEventReset reset = TEventReset::Auto,
                    TClock& clock = SystemClock());
  TKZEvent(const TKZEvent&) = delete;
  TKZEvent& operator=(const TKZEvent&) = delete;

  void Signal() KZ_EXCLUDES(FLock);
  void Reset() KZ_EXCLUDES(FLock);

  // Waits for the signal, at most the given time on the event's clock; returns whether it came.
  bool WaitFor(std::chrono::milliseconds timeout) KZ_EXCLUDES(FLock);

  [[nodiscard]] const std::string& Name() const noexcept { return FName; }

 private:
  const std::string FName;
  const TEventReset FReset;
  TClock& FClock;
  TMutex FLock;
  bool FSignalled KZ_GUARDED_BY(FLock) = false;
  TCondition FChanged;
};

}  // namespace guardian
