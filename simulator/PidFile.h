#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "common/FileDescriptor.h"

namespace guardian {

// The file that says which process is the daemon. The daemon holds an exclusive flock on it for
// its whole life; while nobody holds that lock, the number in the file means nothing. The file is
// never removed.
// Owner: the daemon. A forked process shares the lock; the last one that closes the file ends it.
// Threads: not shared.
class TPidFile {
 public:
  // The result of Acquire: the lock, or the process that holds it.
  struct TAcquired;

  // Takes the lock, or tells which process holds it. Waits up to 5 s while the file is locked and
  // names no living process, as it is for a moment when a daemon starts or ends or when Holder
  // looks. Throws ESystemError, and SoftException after those 5 s.
  [[nodiscard]] static TAcquired Acquire(const std::string& path);

  // The process that holds the lock now, if any. Never blocks.
  [[nodiscard]] static std::optional<pid_t> Holder(const std::string& path);

  // Writes the calling process's number into the file. Throws ESystemError.
  void Enter() const;

  // Empties the file, when the daemon ends in order.
  void Clear() const noexcept;

 private:
  TPidFile(std::string path, TFileDescriptor file);
  [[nodiscard]] static std::optional<TPidFile> TryLock(const std::string& path);

  std::string FPath;
  TFileDescriptor FFile;
};

struct TPidFile::TAcquired {
  std::optional<TPidFile> File;  // Set when the lock was taken.
  pid_t Holder = 0;              // Otherwise the process that holds it.
};

enum class TStopOutcome { Ended, StillRunning };

// Sends the holder SIGTERM and waits for its end for at most the given time. Signals the process
// only if it still holds the lock, so that a reused number is never signalled; returns no outcome
// when it does not. Throws ESystemError.
[[nodiscard]] std::optional<TStopOutcome> TerminateHolder(const std::string& path, pid_t holder,
                                                          std::chrono::milliseconds timeout);

}  // namespace guardian
