#pragma once

#include <atomic>

#include "common/FileDescriptor.h"

namespace guardian {

// A latch that tells long waits to end: set once, never cleared, and visible to poll.
// Owner: the object whose end it announces.
// Threads: any thread, and signal handlers, may call anything.
// Lifetime: it outlives every wait that was given it.
class TCancellation {
 public:
  // Throws ESystemError when the system has no descriptor left.
  TCancellation();
  TCancellation(const TCancellation&) = delete;
  TCancellation& operator=(const TCancellation&) = delete;

  // Async-signal-safe.
  void Cancel() noexcept;
  [[nodiscard]] bool IsCancelled() const noexcept { return FCancelled.load(); }

  // Becomes readable with Cancel. For poll only; never read from it.
  [[nodiscard]] int Descriptor() const noexcept { return FEvent.Get(); }

 private:
  TFileDescriptor FEvent;
  std::atomic<bool> FCancelled = false;  // Atomic: read by every waiter, also set by handlers.
};

}  // namespace guardian
