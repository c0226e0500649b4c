#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>

#include "common/ThreadAnnotations.h"

namespace guardian {

// A named lock that knows its holder, so that the thread report can say which thread waits for
// which. While a thread waits for the lock, its checkpoint record points to it; TCheckpointRecord
// says why a report may follow that pointer. Owner: the object whose fields it guards; no thread
// holds it when that object dies. Threads: any thread may call anything. Lifetime: outlives every
// TKZLockGuard on it and every thread that is in Enter.
class KZ_CAPABILITY("lock") TKZCriticalSection {
 public:
  explicit TKZCriticalSection(std::string name) : FName(std::move(name)) {}
  TKZCriticalSection(const TKZCriticalSection&) = delete;
  TKZCriticalSection& operator=(const TKZCriticalSection&) = delete;

  // Takes the lock, blocking without limit; the holder may enter again and must leave as often.
  // Throws std::system_error when it is entered too deep, and is then not entered.
  void Enter() KZ_ACQUIRE();

  // Leaves the lock once. Never blocks, never throws. Does nothing in a thread that does not hold
  // it: ReleaseRogueLocks may have released the thread's locks before.
  void Leave() noexcept KZ_RELEASE();

  // The id of the thread that held it at some moment of the call, 0 when free. Never blocks.
  [[nodiscard]] std::int32_t Holder() const noexcept {
    return FHolder.load(std::memory_order_relaxed);
  }

  [[nodiscard]] const std::string& Name() const noexcept { return FName; }

 private:
  void Block();

  const std::string FName;
  std::recursive_mutex FMutex;

  // How often the holder has entered. Touched only while FMutex is held.
  int FDepth = 0;

  // Atomic: the thread report reads it without entering.
  std::atomic<std::int32_t> FHolder = 0;
};

// Holds a TKZCriticalSection for one scope; the only way our code enters one.
class KZ_SCOPED_CAPABILITY TKZLockGuard {
 public:
  explicit TKZLockGuard(TKZCriticalSection& section) KZ_ACQUIRE(section) : FSection(section) {
    FSection.Enter();
  }
  ~TKZLockGuard() KZ_RELEASE() { FSection.Leave(); }
  TKZLockGuard(const TKZLockGuard&) = delete;
  TKZLockGuard& operator=(const TKZLockGuard&) = delete;

 private:
  TKZCriticalSection& FSection;
};

}  // namespace guardian
