#pragma once

#include <atomic>
#include <cassert>
#include <cstdint>

#include "common/Thread.h"

namespace guardian {

// Finds, in builds with assertions, calls from a second thread of what belongs to one thread:
//
//   void TGuardianService::Tick() {
//     FTickThread.Check();
//
// The first Check after the construction, or after Detach, says which thread that is.
// Threads: any.
class TThreadChecker {
 public:
  void Check() const noexcept {
    [[maybe_unused]] std::int32_t owner = kNone;
    [[maybe_unused]] const std::int32_t self = CurrentThreadId();
    assert(FOwner.compare_exchange_strong(owner, self) || owner == self);
  }

  // The next Check may come from another thread.
  void Detach() noexcept { FOwner.store(kNone); }

 private:
  static constexpr std::int32_t kNone = 0;

  // Atomic: a call from the wrong thread must not be a data race besides.
  mutable std::atomic<std::int32_t> FOwner = kNone;
};

}  // namespace guardian
