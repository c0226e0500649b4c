#pragma once

#include <signal.h>

#include "common/FatalSignals.h"

namespace guardian {

[[nodiscard]] inline sigset_t AllSignals() noexcept {
  sigset_t set;
  sigfillset(&set);
  return set;
}

[[nodiscard]] inline sigset_t AllSignalsButFatalOnes() noexcept {
  sigset_t set = AllSignals();
  for (const int fatal : kFatalSignals) sigdelset(&set, fatal);
  return set;
}

// Blocks the given signals, and no others, in the calling thread for one scope.
// Owner: the scope.
// Threads: its thread only.
class TSignalBlock {
 public:
  explicit TSignalBlock(const sigset_t& signals) noexcept {
    pthread_sigmask(SIG_SETMASK, &signals, &FPrevious);
  }
  ~TSignalBlock() { pthread_sigmask(SIG_SETMASK, &FPrevious, nullptr); }
  TSignalBlock(const TSignalBlock&) = delete;
  TSignalBlock& operator=(const TSignalBlock&) = delete;

 private:
  sigset_t FPrevious;
};

}  // namespace guardian
