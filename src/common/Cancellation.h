#pragma once

#include <atomic>

#include "common/FileDescriptor.h"

namespace guardian {

// A latch that tells long waits to end: set once, never cleared, and visible to poll.
// Owner: the object whose end it announces; it must outlive whoever was given it.
// Threads: any thread, and signal handlers, may call anything.
class TCancellation {
 public:
  // Throws ESystemError when the system has no descriptor left.
  TCancellation();
  TCancellation(const TCancellation&) = delete;
  TCancellation& operator=(const TCancellation&) = delete;

  // Async-signal-safe.
  void Cancel() noexcept;
  [[nodiscard]] bool IsCancelled() const noexcept { return FCancelled.load(); }

  // Readable from Cancel on; borrowed for poll only, never read from.
  [[nodiscard]] int Descriptor() const noexcept { return FEvent.Get(); }

 private:
  TFileDescriptor FEvent;
  std::atomic<bool> FCancelled = false;  // Atomic: read by every waiter, also set by handlers.
};

}  // namespace guardian
