#pragma once

#include <sys/types.h>

#include <cstdint>
#include <vector>

#include "diagnostics/KZCriticalSection.h"

namespace guardian {

// The children that were started here, each a leader of a process group of its own: they are told
// from the daemon, and from the orphans that fall to this process where it is process 1.
// Owner: process-wide, see Children().
// Threads: any.
class TChildRegistry {
 public:
  // A start under way: while a child may already have ended, but its number is not known yet,
  // nothing is taken for an orphan. One for each child, until it was added.
  class TStart {
   public:
    TStart();
    ~TStart();
    TStart(const TStart&) = delete;
    TStart& operator=(const TStart&) = delete;
  };

  void Add(pid_t pid) KZ_EXCLUDES(FLock);

  // The child was reaped.
  void Remove(pid_t pid) KZ_EXCLUDES(FLock);

  // Nobody waits for the child any more, because even SIGKILL did not end it in time, as when it
  // waits for a dead disk. ReapEnded reaps it once it has ended.
  void Abandon(pid_t pid) KZ_EXCLUDES(FLock);

  // Reaps abandoned children that have ended; also orphans, where they fall to this process. Does
  // not wait.
  void ReapEnded() KZ_EXCLUDES(FLock);

  // Whether the process belongs to the group of a child that runs, or is a child that has ended
  // within the last ten seconds: a process list may be that old. What an ended child has left
  // behind, such as a daemon, is not its own any more.
  [[nodiscard]] bool HasLately(pid_t pid) KZ_EXCLUDES(FLock);

 private:
  struct TChild {
    pid_t Pid = 0;
    bool Abandoned = false;
    std::int64_t EndedAt = kRuns;  // Milliseconds of SystemTickCount.
  };
  static constexpr std::int64_t kRuns = -1;

  void ReapAbandonedLocked() KZ_REQUIRES(FLock);
  void ReapOrphansLocked() KZ_REQUIRES(FLock);
  [[nodiscard]] bool RunsLocked(pid_t pid) const KZ_REQUIRES(FLock);

  TKZCriticalSection FLock{"Children"};
  int FStarts KZ_GUARDED_BY(FLock) = 0;
  std::vector<TChild> FChildren KZ_GUARDED_BY(FLock);
};

// The one object; made at its first use and never destroyed.
[[nodiscard]] TChildRegistry& Children();

// Whether the process is this one, or belongs to a command that this one runs or has lately run.
// Threads: any.
[[nodiscard]] bool IsOwnProcess(pid_t pid);

}  // namespace guardian
