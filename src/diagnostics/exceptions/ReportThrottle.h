#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

#include "common/Clock.h"
#include "common/KZCustomINIFile.h"
#include "common/Mutex.h"
#include "common/Thread.h"

namespace guardian {

enum class TStoreUse {
  Look,  // Reads; a store that does not exist is not made.
  Keep,  // Writes.
};

// Opens the settings store for one use; null when there is none. May throw, and may take its time.
using TStoreOpener = std::function<std::unique_ptr<TKZCustomINIFile>(TStoreUse use)>;

// Whether more than an hour has passed since the last time, both in UTC. A last time in the future,
// which a clock that has been set back leaves, counts as long ago.
[[nodiscard]] bool DetailIsDue(TDateTime last, TDateTime now) noexcept;

// Lets one complete thread report an hour into the log, also across restarts of the process. It
// decides from memory. The settings store, which another process may keep locked for long, is used
// by a thread of its own, so that no report waits for it.
// Owner: the exception reports.
// Threads: any thread may call anything. The time is an atomic; the lock guards what the calls and
// the store's thread tell each other, and is not held while the store is used.
// Lifetime: the destructor waits for the store's thread without limit; the process's own throttle
// is never destroyed, so a store that stands still ends with the process.
class TReportThrottle {
 public:
  // Whether the report of this time (UTC) gets the thread report; if so, the time is remembered.
  [[nodiscard]] bool Admit(TDateTime now) noexcept;

  // Begins to take the time of an earlier run over from the store, or to keep the time in memory
  // there when there is one. Returns at once; a failure becomes a line of the diagnostics.
  void UseStore(const TStoreOpener& openStore) noexcept KZ_EXCLUDES(FLock);

  // UseStore when a time has been admitted since the last call.
  void KeepNewTime(const TStoreOpener& openStore) noexcept KZ_EXCLUDES(FLock);

  // Waits until the store has been used, or the time is over; returns whether it has.
  bool WaitForStore(std::chrono::milliseconds timeout) KZ_EXCLUDES(FLock);

  // Begins anew, as another run does. Frees the store's thread when that has ended its work.
  void Forget() KZ_EXCLUDES(FLock);

 private:
  void Execute() KZ_EXCLUDES(FLock);
  bool TakeRequest(TStoreOpener& openStore) KZ_EXCLUDES(FLock);
  void Agree(const TStoreOpener& openStore);

  std::atomic<TDateTime> FLast = 0;
  std::atomic<bool> FIsNew = false;  // Atomic: an admission that is still to be kept.

  TMutex FLock;
  TCondition FDone;
  bool FWorking KZ_GUARDED_BY(FLock) = false;  // The thread runs, or is about to.
  TStoreOpener FRequest KZ_GUARDED_BY(FLock);  // Empty when nothing is to be done.
  std::unique_ptr<TThread> FThread KZ_GUARDED_BY(FLock);
};

}  // namespace guardian
