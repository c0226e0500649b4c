#include "ipc/WriteQueue.h"

#include <utility>

#include "ipc/PipeFrame.h"

namespace guardian {

void TWriteQueue::Append(std::string_view payload) {
  TPipeWrite write{FBuffers.Take()};
  AppendFrame(*write.Buffer, payload);
  bool wasEmpty = false;
  {
    const TKZLockGuard lock(FLock);
    wasEmpty = FWrites.empty();
    FWrites.push_back(std::move(write));
  }
  if (wasEmpty) FDataEvent.Signal();
}

std::optional<TPipeWrite> TWriteQueue::Dequeue() {
  const TKZLockGuard lock(FLock);
  if (FWrites.empty()) {
    if (!FClosed) FDataEvent.Reset();
    return std::nullopt;
  }
  TPipeWrite write = std::move(FWrites.front());
  FWrites.pop_front();
  return write;
}

void TWriteQueue::Close() {
  const TKZLockGuard lock(FLock);
  FClosed = true;
  FDataEvent.Signal();
}

std::size_t TWriteQueue::Count() {
  const TKZLockGuard lock(FLock);
  return FWrites.size();
}

void TWriteQueue::Limit(std::size_t maxItems) {
  const TKZLockGuard lock(FLock);
  while (FWrites.size() > maxItems) FWrites.pop_front();
}

}  // namespace guardian
