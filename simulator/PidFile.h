#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "common/FileDescriptor.h"

namespace guardian {

// The file that says which process is the daemon. The daemon holds an exclusive flock on it for
// its whole life; the number in a file that nobody locks means nothing. The file is never removed.
// Owner: the daemon. A fork shares the lock: it ends with the last process that has it open.
// Threads: not shared.
class TPidFile {
 public:
  // What Acquire found: the lock, or the process that holds it.
  struct TAcquired;

  // Takes the lock, or finds out who has it. Waits up to 5 s while the file is locked and names no
  // living process: that is a moment of somebody's start, end or look. Throws ESystemError, and
  // SoftException when that moment does not end.
  [[nodiscard]] static TAcquired Acquire(const std::string& path);

  // The process that holds the lock now; none when nobody does. Never blocks.
  [[nodiscard]] static std::optional<pid_t> Holder(const std::string& path);

  // Enters the calling process. Throws ESystemError.
  void Enter() const;

  // Empties the file, at an end in order.
  void Clear() const noexcept;

 private:
  TPidFile(std::string path, TFileDescriptor file);
  [[nodiscard]] static std::optional<TPidFile> TryLock(const std::string& path);

  std::string FPath;
  TFileDescriptor FFile;
};

struct TPidFile::TAcquired {
  std::optional<TPidFile> File;  // Set when the lock was taken.
  pid_t Holder = 0;              // Else the process that holds it.
};

enum class TStopOutcome { Ended, StillRunning };

// Sends the holder SIGTERM and waits for its end for at most the given time. The number is used
// only while the lock proves whose it is, and never after that process has gone: none is returned
// when nobody holds the lock by then. Throws ESystemError.
[[nodiscard]] std::optional<TStopOutcome> TerminateHolder(const std::string& path, pid_t holder,
                                                          std::chrono::milliseconds timeout);

}  // namespace guardian
