#include "ipc/PipeDirectory.h"

#include <sys/un.h>

#include <utility>

#include "common/Exceptions.h"
#include "common/Mutex.h"
#include "common/NeverDestroyed.h"
#include "common/Settings.h"

namespace guardian {
namespace {

struct TSharedDirectory {
  TMutex Lock;
  std::string Path KZ_GUARDED_BY(Lock);
};

TSharedDirectory& Directory() {
  static TNeverDestroyed<TSharedDirectory> directory;
  return *directory;
}

}  // namespace

void SetPipeDirectory(std::string path) {
  TSharedDirectory& directory = Directory();
  const TMutexLock lock(directory.Lock);
  directory.Path = std::move(path);
}

std::string PipeDirectory() {
  TSharedDirectory& directory = Directory();
  const TMutexLock lock(directory.Lock);
  if (directory.Path.empty()) directory.Path = Settings().MutexDirectory.Copy();
  if (directory.Path.empty()) directory.Path = "/tmp";
  return directory.Path;
}

std::string FullPipeNameOf(const std::string& pipeName) {
  std::string path = PipeDirectory() + "/" + pipeName;
  if (path.size() + 1 > sizeof(sockaddr_un::sun_path)) {
    throw KZException("Length(FullPipeName)+1>sizeof(FSockAddr.sun_path)");
  }
  return path;
}

}  // namespace guardian
