#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>

#include "common/Clock.h"

namespace guardian {

// Time that runs faster than the machine's by a whole factor, from the moment it is made.
// Threads: any.
class TFastClock final : public TClock {
 public:
  explicit TFastClock(std::int64_t factor) : FFactor(factor) {}

  TDateTime Now() const override { return SystemClock().Now() + Ahead(); }
  TDateTime UtcNow() const override { return SystemClock().UtcNow() + Ahead(); }
  std::int64_t TickCount() const override { return FBegan + Elapsed() * FFactor; }

  bool WaitUntil(TMutex& mutex, TCondition& condition, std::int64_t deadlineTick,
                 const std::function<bool()>& predicate) override KZ_REQUIRES(mutex) {
    constexpr std::int64_t kLongestWaitMs = 3'600'000;
    while (!predicate()) {
      const std::int64_t left = deadlineTick - TickCount();
      if (left <= 0) return false;
      const std::int64_t waitMs = std::min(left / FFactor + 1, kLongestWaitMs);
      condition.WaitFor(mutex, std::chrono::milliseconds(waitMs));
    }
    return true;
  }

 private:
  std::int64_t Elapsed() const { return SystemTickCount() - FBegan; }
  TDateTime Ahead() const { return static_cast<double>(Elapsed() * (FFactor - 1)) / 86'400'000.0; }

  const std::int64_t FFactor;
  const std::int64_t FBegan = SystemTickCount();
};

}  // namespace guardian
