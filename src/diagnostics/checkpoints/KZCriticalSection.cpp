#include "diagnostics/KZCriticalSection.h"

#include "common/AtEnd.h"
#include "common/Thread.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/checkpoints/CheckpointRecord.h"

namespace guardian {

void TKZCriticalSection::Enter() {
  if (!FMutex.try_lock()) Block();
  if (++FDepth == 1) FHolder.store(CurrentThreadId(), std::memory_order_relaxed);
}

// A thread whose record is gone, at its end, waits without being noted.
void TKZCriticalSection::Block() {
  TCheckpointRecord* const record = KZCP::CurrentRecord();
  if (record == nullptr) return FMutex.lock();
  record->SetAwaitedLock(this);
  const TAtEnd entered([record] { record->SetAwaitedLock(nullptr); });
  FMutex.lock();
}

// The holder is cleared before the unlock: afterwards the next holder may already have set it.
void TKZCriticalSection::Leave() noexcept {
  if (Holder() != CurrentThreadId()) return;
  if (--FDepth == 0) FHolder.store(0, std::memory_order_relaxed);
  FMutex.unlock();
}

}  // namespace guardian
