#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "common/Clock.h"
#include "common/KZCustomINIFile.h"

namespace guardian {

// Opens the settings store for one use; null when there is none. May throw.
using TStoreOpener = std::function<std::unique_ptr<TKZCustomINIFile>()>;

// Whether more than an hour has passed since the last time, both in UTC. A last time in the future,
// which a clock that has been set back leaves, counts as long ago.
[[nodiscard]] bool DetailIsDue(TDateTime last, TDateTime now) noexcept;

// Lets one complete thread report an hour into the log, also across restarts of the process.
// Threads: any. The time is an atomic, so that no thread waits while another one uses the store.
class TReportThrottle {
 public:
  // Whether the report of this time (UTC) gets the thread report; if so, the time is kept in the
  // store. The store is opened at most once an hour. Without a store, or when it fails, only the
  // time in memory counts.
  [[nodiscard]] bool Admit(TDateTime now, const TStoreOpener& openStore) noexcept;

  void Forget() noexcept { FLast.store(0); }

 private:
  std::atomic<TDateTime> FLast = 0;
};

}  // namespace guardian
