#include "ipc/PayloadPool.h"

#include <iterator>

namespace guardian {
namespace {

constexpr std::size_t kMaxUndelivered = 16'777'216;
// What a message costs besides its bytes; without it a flood of empty frames would count nothing.
constexpr std::size_t kMessageCost = 256;
constexpr std::size_t kMaxSpare = 64;
constexpr std::size_t kMaxSpareBytes = 65'536;

}  // namespace

// Room for all of them, so that Give never allocates.
TPayloadPool::TPayloadPool() { FSpare.reserve(kMaxSpare); }

std::unique_ptr<std::string> TPayloadPool::Take(std::string_view bytes) {
  if (FTaken.empty()) {
    // Half of them at once, so that the two threads seldom meet at the lock.
    const TMutexLock lock(FLock);
    const auto from = FSpare.begin() + static_cast<std::ptrdiff_t>(FSpare.size() / 2);
    FTaken.assign(std::make_move_iterator(from), std::make_move_iterator(FSpare.end()));
    FSpare.erase(from, FSpare.end());
  }
  if (FTaken.empty()) FTaken.push_back(std::make_unique<std::string>());
  FTaken.back()->assign(bytes);
  std::unique_ptr<std::string> buffer = std::move(FTaken.back());
  FTaken.pop_back();
  FUndelivered.fetch_add(buffer->size() + kMessageCost);
  return buffer;
}

void TPayloadPool::Give(std::unique_ptr<std::string> buffer) noexcept {
  const std::size_t cost = buffer->size() + kMessageCost;
  if (buffer->capacity() <= kMaxSpareBytes) {
    const TMutexLock lock(FLock);
    if (FSpare.size() < kMaxSpare) FSpare.push_back(std::move(buffer));
  }
  const std::size_t before = FUndelivered.fetch_sub(cost);
  if (before > kMaxUndelivered && before - cost <= kMaxUndelivered) FRoomEvent.Signal();
}

bool TPayloadPool::IsFull() const noexcept { return FUndelivered.load() > kMaxUndelivered; }

TMessagePayload MakePayload(const std::shared_ptr<TPayloadPool>& pool, std::string_view bytes) {
  return {pool->Take(bytes).release(), TPayloadDeleter(pool)};
}

}  // namespace guardian
