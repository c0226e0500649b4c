#include "ipc/PayloadPool.h"

namespace guardian {

std::unique_ptr<std::string> TPayloadPool::Take(std::string_view bytes) {
  if (FTaken.empty()) FTaken = FBuffers.TakeHalf();
  if (FTaken.empty()) FTaken.push_back(std::make_unique<std::string>());
  std::unique_ptr<std::string> buffer = std::move(FTaken.back());
  FTaken.pop_back();
  buffer->assign(bytes);
  FUndelivered.fetch_add(buffer->size() + kMessageCost);
  return buffer;
}

void TPayloadPool::Give(std::unique_ptr<std::string> buffer) noexcept {
  const std::size_t cost = buffer->size() + kMessageCost;
  FBuffers.Give(std::move(buffer));
  const std::size_t before = FUndelivered.fetch_sub(cost);
  if (before > kMaxUndelivered && before - cost <= kMaxUndelivered) FRoomEvent.Signal();
}

TMessagePayload MakePayload(const std::shared_ptr<TPayloadPool>& pool, std::string_view bytes) {
  return {pool->Take(bytes).release(), TPayloadDeleter(pool)};
}

}  // namespace guardian
