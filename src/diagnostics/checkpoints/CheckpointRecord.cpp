#include "diagnostics/checkpoints/CheckpointRecord.h"

#include "common/Thread.h"
#include "diagnostics/KZCriticalSection.h"

namespace guardian {
namespace {

// How many histories exist. Atomic: any thread makes and frees its own.
constinit std::atomic<int> histories = 0;

}  // namespace

std::unique_ptr<TCheckpointHistory> TCheckpointHistory::Create() {
  std::unique_ptr<TCheckpointHistory> history(new TCheckpointHistory);
  if (history->FOlderHistories >= kMaxOwners) return nullptr;
  return history;
}

TCheckpointHistory::TCheckpointHistory() noexcept : FOlderHistories(histories.fetch_add(1)) {}

TCheckpointHistory::~TCheckpointHistory() { histories.fetch_sub(1); }

void TCheckpointHistory::Append(std::string_view text, std::int64_t tick) noexcept {
  const std::int32_t newest = FIndex.load(std::memory_order_relaxed);
  const std::int32_t index = newest >= kEntries ? 1 : newest + 1;
  TCheckpointHistoryEntry& entry = FEntries[static_cast<std::size_t>(index - 1)];
  entry.Text.Store(text);
  entry.Tick.store(tick, std::memory_order_relaxed);
  FIndex.store(index, std::memory_order_relaxed);
}

bool TCheckpointRecord::AppendHistory(std::string_view text, std::int64_t tick) {
  if (FHistory == nullptr) {
    FHistory = TCheckpointHistory::Create();
    if (FHistory == nullptr) return false;
    FPublishedHistory.store(FHistory.get(), std::memory_order_release);
  }
  FHistory->Append(text, tick);
  return true;
}

void TCheckpointRecord::DropHistory() noexcept {
  FPublishedHistory.store(nullptr, std::memory_order_relaxed);
  FHistory.reset();
}

void TCheckpointRecord::SetAwaitedLock(TKZCriticalSection* lock) {
  const TMutexLock waitLock(FWaitLock);
  FAwaitedLock = lock;
}

std::optional<TAwaitedLock> TCheckpointRecord::AwaitedLock() const {
  const TMutexLock waitLock(FWaitLock);
  if (FAwaitedLock == nullptr) return std::nullopt;
  return TAwaitedLock{FAwaitedLock->Name(), FAwaitedLock->Holder()};
}

// Not analysed: whether the calling thread holds the lock is known at run time only.
void TCheckpointRecord::LeaveAwaitedLock() KZ_NO_ANALYSIS {
  const TMutexLock waitLock(FWaitLock);
  if (FAwaitedLock == nullptr) return;
  while (FAwaitedLock->Holder() == CurrentThreadId()) FAwaitedLock->Leave();
}

}  // namespace guardian
