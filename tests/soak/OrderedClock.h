#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "common/Clock.h"
#include "system/FastClock.h"

namespace guardian {

// What may be ordered of a running Guardian from outside: the layout of a file of that size.
struct TClockOrders {
  std::atomic<std::int64_t> WallStepSec;  // Added to the wall clock.
  std::atomic<std::int64_t> Leaks;        // Descriptors, threads and MiB of memory to lose.
};
static_assert(sizeof(TClockOrders) == 16 && std::atomic<std::int64_t>::is_always_lock_free);

// Fast time whose wall clock is stepped by a file: two 64-bit numbers, which whoever runs the
// program changes while it reads them.
// Threads: any.
class TOrderedClock final : public TClock {
 public:
  // Maps the file for as long as the process lives. Throws ESystemError.
  TOrderedClock(std::int64_t factor, const std::string& ordersFile);

  TDateTime Now() const override { return FFast.Now() + Step(); }
  TDateTime UtcNow() const override { return FFast.UtcNow() + Step(); }
  std::int64_t TickCount() const override { return FFast.TickCount(); }

  bool WaitUntil(TMutex& mutex, TCondition& condition, std::int64_t deadlineTick,
                 const std::function<bool()>& predicate) override KZ_REQUIRES(mutex) {
    return FFast.WaitUntil(mutex, condition, deadlineTick, predicate);
  }

 private:
  // Reading the clock is also where the leaks come from: every round of the watchdog does it.
  TDateTime Step() const;

  TFastClock FFast;
  const TClockOrders& FOrders;
  mutable std::atomic<std::int64_t> FLeaked = 0;  // Atomic: any thread reads the clock.
};

}  // namespace guardian
