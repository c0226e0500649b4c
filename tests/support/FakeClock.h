#pragma once

#include <atomic>

#include "common/Clock.h"

namespace guardian {

// Time that moves by Advance alone. Wall and steady time can be moved apart.
// Threads: any. Whoever waits on it looks at the time every millisecond of real time, so a waiter
// may come and go at any moment.
class TFakeClock : public TClock {
 public:
  TDateTime Now() const override { return FWall.load(); }
  TDateTime UtcNow() const override { return FWall.load(); }
  std::int64_t TickCount() const override { return FTick.load(); }

  bool WaitUntil(TMutex& mutex, TCondition& condition, std::int64_t deadlineTick,
                 const std::function<bool()>& predicate) override KZ_REQUIRES(mutex) {
    ++FWaits;
    if (FailsNext.exchange(false)) throw std::bad_alloc();
    while (!predicate()) {
      if (TickCount() >= deadlineTick) return false;
      condition.WaitFor(mutex, std::chrono::milliseconds(1));
    }
    return true;
  }

  // How many waits have begun; what a wait's deadline was reckoned from is then behind it.
  int Waits() const { return FWaits; }

  // Both times move.
  void Advance(std::chrono::milliseconds duration) {
    FWall.store(FWall.load() + static_cast<double>(duration.count()) / 86'400'000.0);
    FTick.fetch_add(duration.count());
  }

  // Only the wall clock steps, as when somebody sets it.
  void SetWall(TDateTime wall) { FWall.store(wall); }

  std::atomic<bool> FailsNext = false;  // The next wait finds no memory.

 private:
  std::atomic<TDateTime> FWall = 46347.25;  // 21 November 2026, 06:00.
  std::atomic<std::int64_t> FTick = 1'000'000;
  std::atomic<int> FWaits = 0;
};

}  // namespace guardian
