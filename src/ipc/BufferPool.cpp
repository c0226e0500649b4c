#include "ipc/BufferPool.h"

#include <cstddef>
#include <iterator>
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

std::vector<std::unique_ptr<std::string>> TBufferPool::TakeHalf() {
  const TMutexLock lock(FLock);
  const auto from = FBuffers.begin() + static_cast<std::ptrdiff_t>(FBuffers.size() / 2);
  std::vector<std::unique_ptr<std::string>> half(std::make_move_iterator(from),
                                                 std::make_move_iterator(FBuffers.end()));
  FBuffers.erase(from, FBuffers.end());
  return half;
}

void TBufferPool::Give(std::unique_ptr<std::string> buffer) noexcept {
  if (buffer->capacity() > kMaxBytes) return;
  buffer->clear();
  const TMutexLock lock(FLock);
  if (FBuffers.size() < kMaxBuffers) FBuffers.push_back(std::move(buffer));
}

}  // namespace guardian
