#pragma once

#include <memory>
#include <string>
#include <vector>

#include "common/Mutex.h"

namespace guardian {

// Used buffers that wait for their next use, so that the allocator need not be asked for each
// frame. It keeps at most kMaxBuffers, and none whose capacity is above kMaxBytes. Threads: any.
class TBufferPool {
 public:
  static constexpr std::size_t kMaxBuffers = 64;
  static constexpr std::size_t kMaxBytes = 65'536;

  TBufferPool();
  TBufferPool(const TBufferPool&) = delete;
  TBufferPool& operator=(const TBufferPool&) = delete;

  // An empty buffer, used before or new; never null.
  [[nodiscard]] std::unique_ptr<std::string> Take() KZ_EXCLUDES(FLock);

  // Half of the kept buffers, for a thread that takes many and would often meet others at the lock.
  [[nodiscard]] std::vector<std::unique_ptr<std::string>> TakeHalf() KZ_EXCLUDES(FLock);

  // Keeps the buffer, or frees it. Never allocates.
  void Give(std::unique_ptr<std::string> buffer) noexcept KZ_EXCLUDES(FLock);

 private:
  TMutex FLock;
  std::vector<std::unique_ptr<std::string>> FBuffers KZ_GUARDED_BY(FLock);
};

}  // namespace guardian
