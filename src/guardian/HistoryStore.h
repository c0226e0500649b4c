#pragma once

#include <memory>

#include "common/Clock.h"
#include "common/Thread.h"
#include "diagnostics/exception_report.h"
#include "webstatus/History.h"

namespace guardian {

// Keeps the history in the settings store, so that it outlasts a restart: takes over what an
// earlier run left, and writes it every 10 minutes and at the end. A thread of its own does so,
// since another process may keep the store locked for long. A failure is one line of the
// diagnostics, and no other until the store has worked again; what is there of another layout is
// one line, too, and is replaced.
// Owner: the entry, made when the log folder is known.
// Threads: the owner's.
// Lifetime: the destructor waits at most a second for the last write. A thread that stands still
// then ends with the process; opener and clock live as long.
class THistoryStore {
 public:
  THistoryStore(std::shared_ptr<THistory> history, TStoreOpener openStore, TClock& clock);
  ~THistoryStore();
  THistoryStore(const THistoryStore&) = delete;
  THistoryStore& operator=(const THistoryStore&) = delete;

 private:
  class TStoreThread;

  std::unique_ptr<TThread> FThread;
};

}  // namespace guardian
