#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>

#include "common/Clock.h"

namespace guardian {

// A hold: for maintenance the watchdog looks and does not act, until a given time. It is counted in
// steady time and not kept over a restart.
// Owner: the guardian service.
// Threads: any thread may call anything.
// Lifetime: the clock outlives it.
class THold {
 public:
  explicit THold(TClock& clock) : FClock(clock) {}

  // From now on; replaces a hold that lasts.
  void Begin(std::chrono::milliseconds length) noexcept {
    FEnd = FClock.TickCount() + length.count();
  }
  void Release() noexcept { FEnd = 0; }

  // The tick at which the hold that lasts now will end; 0 when there is none.
  [[nodiscard]] std::int64_t End() const {
    const std::int64_t end = FEnd;
    return end > FClock.TickCount() ? end : 0;
  }

  // How long it still lasts; empty when there is none.
  [[nodiscard]] std::optional<double> LeftSec() const {
    const std::int64_t leftMs = FEnd - FClock.TickCount();
    if (leftMs <= 0) return std::nullopt;
    return static_cast<double>(leftMs) / 1000;
  }

  // The local wall time of its end.
  [[nodiscard]] TDateTime WallEnd() const { return FClock.Now() + LeftSec().value_or(0) * kSecond; }

 private:
  TClock& FClock;
  std::atomic<std::int64_t> FEnd = 0;  // Atomic: pages write it, the tick reads it.
};

}  // namespace guardian
