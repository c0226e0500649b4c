#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "common/ThreadAnnotations.h"

namespace guardian {

// The ground floor's lock: std::mutex with annotations. Code above diagnostics uses
// TKZCriticalSection, which the thread report can name.
// Threads: any.
class KZ_CAPABILITY("mutex") TMutex {
 public:
  TMutex() = default;
  TMutex(const TMutex&) = delete;
  TMutex& operator=(const TMutex&) = delete;

  void Lock() KZ_ACQUIRE() { FMutex.lock(); }
  // False when it is held, by the calling thread too.
  [[nodiscard]] bool TryLock() noexcept KZ_TRY_ACQUIRE(true) { return FMutex.try_lock(); }
  void Unlock() noexcept KZ_RELEASE() { FMutex.unlock(); }

 private:
  friend class TCondition;
  std::mutex FMutex;
};

// Holds a TMutex for one scope.
class KZ_SCOPED_CAPABILITY TMutexLock {
 public:
  explicit TMutexLock(TMutex& mutex) KZ_ACQUIRE(mutex) : FMutex(mutex) { FMutex.Lock(); }
  ~TMutexLock() KZ_RELEASE() { FMutex.Unlock(); }
  TMutexLock(const TMutexLock&) = delete;
  TMutexLock& operator=(const TMutexLock&) = delete;

 private:
  TMutex& FMutex;
};

// A condition variable for TMutex. Every wait may return early; callers loop on their condition,
// and waits with a limit go through TClock, so that a test can move the time.
class TCondition {
 public:
  void NotifyOne() noexcept { FCondition.notify_one(); }
  void NotifyAll() noexcept { FCondition.notify_all(); }

  void Wait(TMutex& mutex) KZ_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.FMutex, std::adopt_lock);
    FCondition.wait(lock);
    lock.release();
  }

  // Real time; blocks for at most the given duration.
  void WaitFor(TMutex& mutex, std::chrono::milliseconds duration) KZ_REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.FMutex, std::adopt_lock);
    FCondition.wait_for(lock, duration);
    lock.release();
  }

 private:
  std::condition_variable FCondition;
};

}  // namespace guardian
