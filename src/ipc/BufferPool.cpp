#include "ipc/BufferPool.h"

#include <utility>

namespace guardian {

TBufferPool::TBufferPool() { FBuffers.reserve(kMaxBuffers); }

std::unique_ptr<std::string> TBufferPool::Take() {
  {
    const TMutexLock lock(FLock);
    if (!FBuffers.empty()) {
      std::unique_ptr<std::string> buffer = std::move(FBuffers.back());
      FBuffers.pop_back();
      return buffer;
    }
  }
  return std::make_unique<std::string>();
}

void TBufferPool::Give(std::unique_ptr<std::string> buffer) noexcept {
  if (buffer->capacity() > kMaxBytes) return;
  buffer->clear();
  const TMutexLock lock(FLock);
  if (FBuffers.size() < kMaxBuffers) FBuffers.push_back(std::move(buffer));
}

}  // namespace guardian
