#include "common/NamedMutex.h"

#include <fcntl.h>
#include <sys/file.h>

namespace guardian {
namespace {

TFileDescriptor OpenLockFile(const std::string& path, int flags) {
  // Non-blocking: opening a named pipe at this path must not wait for its other end.
  return TFileDescriptor(RetryOnEintr([&] {
    return ::open(path.c_str(), flags | O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW,
                  0666);
  }));
}

// First opens without O_CREAT: in a shared folder the system may refuse O_CREAT for an existing
// file of another user. Tries twice, since another process may create the file in between.
TFileDescriptor OpenOrCreateLockFile(const std::string& path) {
  for (int tries = 0; tries < 2; ++tries) {
    if (TFileDescriptor file = OpenLockFile(path, 0); file || errno != ENOENT) return file;
    if (TFileDescriptor file = OpenLockFile(path, O_CREAT | O_EXCL); file || errno != EEXIST) {
      return file;
    }
  }
  return {};
}

}  // namespace

TNamedMutex TNamedMutex::Create(const std::string& name) {
  TNamedMutex mutex;
  mutex.FLockFile = OpenOrCreateLockFile(name + ".lock");
  if (!mutex.FLockFile) {
    mutex.FError = errno;
    return mutex;
  }
  if (!IsRegularFile(mutex.FLockFile)) {
    mutex.FError = EINVAL;
    mutex.FLockFile.Close();
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
