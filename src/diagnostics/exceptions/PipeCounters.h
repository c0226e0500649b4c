#pragma once

#include <atomic>

namespace guardian {

// How many pipes and pipe threads the process has: counted by the pipe transport, printed by the
// exception report, which lies below it.
// Threads: any; atomics, since each is a count of its own.
struct TPipeCounters {
  std::atomic<int> ClientPipes = 0;
  std::atomic<int> ClientPipeThreads = 0;
  std::atomic<int> ServerPipes = 0;
  std::atomic<int> ServerPipeThreads = 0;
};

// The one object, from the start of the process to its end.
inline TPipeCounters& PipeCounters() noexcept {
  static constinit TPipeCounters counters;
  return counters;
}

}  // namespace guardian
