#include "common/FileHandle.h"

#include <sys/file.h>

#include <chrono>
#include <unordered_map>
#include <utility>

#include "common/Exceptions.h"
#include "common/Mutex.h"
#include "common/NeverDestroyed.h"

namespace guardian {
namespace {

using TFile = std::shared_ptr<const TFileDescriptor>;

struct TFileObjects {
  TMutex Lock;
  TFileHandle LastHandle KZ_GUARDED_BY(Lock) = 1;
  std::unordered_map<TFileHandle, TFile> Files KZ_GUARDED_BY(Lock);
};

// Made at first use, never freed: threads may close their files until the very end of the process.
TFileObjects& FileObjects() {
  static TNeverDestroyed<TFileObjects> objects;
  return *objects;
}

// Takes the file out of the list; null when it is not there.
TFile TakeFileObject(TFileHandle handle) {
  TFileObjects& objects = FileObjects();
  const TMutexLock lock(objects.Lock);
  auto node = objects.Files.extract(handle);
  return node ? std::move(node.mapped()) : nullptr;
}

}  // namespace

TFileHandle AddFileObject(TFileDescriptor file) {
  if (!file) throw KZException("AddFileObject: no open file");
  auto shared = std::make_shared<const TFileDescriptor>(std::move(file));
  TFileObjects& objects = FileObjects();
  const TMutexLock lock(objects.Lock);
  const TFileHandle handle = ++objects.LastHandle;
  objects.Files.emplace(handle, std::move(shared));
  return handle;
}

std::shared_ptr<const TFileDescriptor> BorrowFileObject(TFileHandle handle) {
  TFileObjects& objects = FileObjects();
  const TMutexLock lock(objects.Lock);
  const auto found = objects.Files.find(handle);
  return found != objects.Files.end() ? found->second : nullptr;
}

void CloseHandle(TFileHandle handle, TClock& clock) {
  constexpr int kPolls = 6;
  constexpr std::chrono::milliseconds kPause(200);
  if (handle == 0 || handle == 1) return;
  TFile file = TakeFileObject(handle);
  if (file == nullptr) throw KZException("Invalid handle passed to CloseHandle");
  // A borrower that hangs keeps the file open, but not what the file locks.
  ::flock(file->Get(), LOCK_UN);
  const std::weak_ptr<const TFileDescriptor> closing = file;
  file.reset();
  for (int poll = 1; poll < kPolls && !closing.expired(); ++poll) clock.Sleep(kPause);
}

}  // namespace guardian
