#include "diagnostics/KZCriticalSection.h"

#include "common/Thread.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/checkpoints/CheckpointRecord.h"

namespace guardian {
namespace {

// Notes the lock in the calling thread's record for one scope. A thread that has no record any
// more waits unnoted.
class TAwaitedLockMark {
 public:
  explicit TAwaitedLockMark(TKZCriticalSection& section) : FRecord(KZCP::CurrentRecord()) {
    if (FRecord != nullptr) FRecord->SetAwaitedLock(&section);
  }
  ~TAwaitedLockMark() {
    if (FRecord != nullptr) FRecord->SetAwaitedLock(nullptr);
  }
  TAwaitedLockMark(const TAwaitedLockMark&) = delete;
  TAwaitedLockMark& operator=(const TAwaitedLockMark&) = delete;

 private:
  TCheckpointRecord* const FRecord;
};

}  // namespace

void TKZCriticalSection::Enter() {
  if (!FMutex.try_lock()) Block();
  if (++FDepth == 1) FHolder.store(CurrentThreadId(), std::memory_order_relaxed);
}

void TKZCriticalSection::Block() {
  const TAwaitedLockMark mark(*this);
  FMutex.lock();
}

// The holder is cleared before the unlock: afterwards the next one may already have set it.
void TKZCriticalSection::Leave() noexcept {
  if (Holder() != CurrentThreadId()) return;
  if (--FDepth == 0) FHolder.store(0, std::memory_order_relaxed);
  FMutex.unlock();
}

}  // namespace guardian
