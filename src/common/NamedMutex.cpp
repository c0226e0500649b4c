#include "common/NamedMutex.h"

#include <fcntl.h>
#include <sys/file.h>

namespace guardian {

TNamedMutex TNamedMutex::Create(const std::string& name) {
  const std::string lockFile = name + ".lock";
  TNamedMutex mutex;
  mutex.FLockFile = TFileDescriptor(RetryOnEintr(
      [&] { return ::open(lockFile.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOCTTY, 0666); }));
  if (!mutex.FLockFile) {
    mutex.FError = errno;
    return mutex;
  }
  if (RetryOnEintr([&] { return ::flock(mutex.FLockFile.Get(), LOCK_EX | LOCK_NB); }) == 0) {
    return mutex;
  }
  mutex.FError = errno;
  if (mutex.FError == EWOULDBLOCK) {
    mutex.FError = kErrorAlreadyExists;
  } else {
    mutex.FLockFile.Close();
  }
  return mutex;
}

}  // namespace guardian
