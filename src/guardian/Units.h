#pragma once

#include <memory>

#include "common/KZCustomINIFile.h"
#include "diagnostics/exception_report.h"

namespace guardian {

// The Guardian's own settings store, for one use; null before the log folder is known. To look
// into, it is not made. Any thread.
[[nodiscard]] std::unique_ptr<TKZCustomINIFile> OpenGuardianStore(TStoreUse use);

// The process-wide units below the service: checkpoints, exception reports, message delivery,
// pipes. The constructor starts them and has every exception of a message handler, of a thread or
// of a pipe reported; the destructor stops them in the opposite order. Owner: the entry, as a local
// object; at most one at a time. Threads: the main thread, after BindMainThread. Lifetime: outlives
// the service and everything else that posts messages or opens pipes.
class TUnits {
 public:
  TUnits();
  ~TUnits();
  TUnits(const TUnits&) = delete;
  TUnits& operator=(const TUnits&) = delete;
};

}  // namespace guardian
