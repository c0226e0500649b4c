#pragma once

#include <string>

#include "common/FileDescriptor.h"

namespace guardian {

// The error of TNamedMutex::Create for a mutex that somebody else holds.
inline constexpr int kErrorAlreadyExists = 183;

// A cross-process lock. For the name N, a path, the lock file is N + ".lock"; it is held by an
// exclusive flock for as long as the handle is open and is never removed, so a process that dies
// releases its mutexes. A second holder is refused in the same process too.
// Threads: not shared.
class TNamedMutex {
 public:
  TNamedMutex() noexcept = default;

  // Creates and takes the mutex; never blocks. Error() is then 0 when it was taken,
  // kErrorAlreadyExists when somebody else holds it (the handle is valid all the same, and holds
  // nothing), or the error number of the failure, with no handle.
  [[nodiscard]] static TNamedMutex Create(const std::string& name);

  [[nodiscard]] int Error() const noexcept { return FError; }
  [[nodiscard]] bool HasHandle() const noexcept { return static_cast<bool>(FLockFile); }

  // Gives the mutex free.
  void Close() noexcept { FLockFile.Close(); }

 private:
  TFileDescriptor FLockFile;
  int FError = 0;
};

}  // namespace guardian
