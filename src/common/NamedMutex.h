#pragma once

#include <string>

#include "common/FileDescriptor.h"

namespace guardian {

// The error of TNamedMutex::Create for a mutex that another handle holds.
inline constexpr int kErrorAlreadyExists = 183;

// A cross-process lock. For the name N, a path, the lock file is N + ".lock"; it is held by an
// exclusive flock for as long as the handle is open. The file is never removed. The system releases
// the mutexes of a process that dies. A second holder is refused in the same process too.
// Threads: not shared.
class TNamedMutex {
 public:
  TNamedMutex() noexcept = default;

  // Creates and takes the mutex; never blocks. Error() is then 0 when the mutex was taken. It is
  // kErrorAlreadyExists when another handle holds the mutex; this handle is then open and holds
  // nothing. For any other failure it is the error number, and there is no handle.
  [[nodiscard]] static TNamedMutex Create(const std::string& name);

  [[nodiscard]] int Error() const noexcept { return FError; }
  [[nodiscard]] bool HasHandle() const noexcept { return static_cast<bool>(FLockFile); }

  // Releases the mutex.
  void Close() noexcept { FLockFile.Close(); }

 private:
  TFileDescriptor FLockFile;
  int FError = 0;
};

}  // namespace guardian
