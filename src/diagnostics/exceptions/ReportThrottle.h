#pragma once

#include <atomic>
#include <functional>
#include <memory>

#include "common/Clock.h"
#include "common/KZCustomINIFile.h"

namespace guardian {

// Opens the settings store for one use; null when there is none. May throw.
using TStoreOpener = std::function<std::unique_ptr<TKZCustomINIFile>()>;

// Whether an hour is over since the last time, both in UTC. A time of the future, left by a clock
// that has been set back, does not count.
[[nodiscard]] bool DetailIsDue(TDateTime last, TDateTime now) noexcept;

// Lets one complete thread report an hour into the log, restarts of the process included.
// Threads: any. The time is an atomic, so that nobody waits while somebody else uses the store.
class TReportThrottle {
 public:
  // Whether the report at this time (UTC) is the one; the store then has its time. The store is
  // opened at most once an hour. Without one, or when it fails, the process's own memory decides.
  [[nodiscard]] bool Admit(TDateTime now, const TStoreOpener& openStore) noexcept;

  void Forget() noexcept { FLast.store(0); }

 private:
  std::atomic<TDateTime> FLast = 0;
};

}  // namespace guardian
