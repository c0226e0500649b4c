#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "common/Mutex.h"
#include "diagnostics/checkpoints/AtomicShortText.h"

namespace guardian {

class TKZCriticalSection;

// One passed checkpoint in a history.
struct TCheckpointHistoryEntry {
  TAtomicShortText<56, 50> Text;
  std::atomic<std::int64_t> Tick = 0;  // Milliseconds; 0 while the entry is empty.
};
static_assert(sizeof(TCheckpointHistoryEntry) == 64);

// The ring of a thread's last checkpoints.
// Owner: the thread's TCheckpointRecord. At most kMaxOwners exist at a time.
// Threads: Append by the record's thread; the rest by any. Entries are atomic words because a
// report reads them while the thread goes on.
class TCheckpointHistory {
 public:
  static constexpr int kEntries = 10'000;
  static constexpr int kMaxOwners = 100;

  // An empty history, or null when kMaxOwners exist already. Throws std::bad_alloc.
  [[nodiscard]] static std::unique_ptr<TCheckpointHistory> Create();

  ~TCheckpointHistory();
  TCheckpointHistory(const TCheckpointHistory&) = delete;
  TCheckpointHistory& operator=(const TCheckpointHistory&) = delete;

  // Adds the newest entry over the oldest one. The text is cut to 50 bytes.
  void Append(std::string_view text, std::int64_t tick) noexcept;

  // The position of the newest entry, 1 to kEntries; 0 while empty.
  [[nodiscard]] int NewestIndex() const noexcept { return FIndex.load(std::memory_order_relaxed); }

  // The entry at a position from 1 to kEntries.
  [[nodiscard]] const TCheckpointHistoryEntry& At(int index) const noexcept {
    return FEntries[static_cast<std::size_t>(index - 1)];
  }

  // The position of the entry before the one at the given position.
  [[nodiscard]] static constexpr int Older(int index) noexcept {
    return index == 1 ? kEntries : index - 1;
  }

 private:
  TCheckpointHistory() noexcept;

  const int FOlderHistories;  // How many existed when this one was made.
  std::atomic<std::int32_t> FIndex = 0;
  std::array<TCheckpointHistoryEntry, kEntries> FEntries{};
};

// What a lock that a thread waits for looked like at one moment.
struct TAwaitedLock {
  std::string Name;
  std::int32_t Holder = 0;  // Thread id, 0 when it was free at that moment.
};

// What is known of one thread's progress.
//
// A reader may use the awaited lock although another object owns it: a thread sets FAwaitedLock
// before it blocks and clears it before it returns from Enter, both under FWaitLock, and a reader
// holds FWaitLock while it uses the lock. So the waiting thread cannot return from Enter meanwhile,
// and a lock outlives every thread that is in its Enter.
// Owner: its thread and ThreadCPList share it, so that it outlives the thread while it is listed.
// Threads: the record's own thread calls Pass, AppendHistory, DropHistory, SetAllowance and
// SetAwaitedLock; any thread calls the others. A thread that reads the history of another one holds
// the lock of ThreadCPList. While the record is listed, DropHistory is called under that lock.
class TCheckpointRecord {
 public:
  TCheckpointRecord() = default;
  TCheckpointRecord(const TCheckpointRecord&) = delete;
  TCheckpointRecord& operator=(const TCheckpointRecord&) = delete;

  // Makes the text, cut to 255 bytes, the current checkpoint, passed at the tick (milliseconds).
  void Pass(std::string_view text, std::int64_t tick) noexcept {
    FCPTime.store(tick, std::memory_order_relaxed);
    FCurrentCP.Store(text);
  }

  // Adds to the history, and makes it first when there is none. Returns false and adds nothing when
  // too many threads have a history already. Throws std::bad_alloc.
  [[nodiscard]] bool AppendHistory(std::string_view text, std::int64_t tick);
  void DropHistory() noexcept;

  // The seconds that this thread may be silent beyond the limit of the mutex guardian.
  void SetAllowance(std::int64_t seconds) noexcept {
    FPreviousCPTime.store(seconds, std::memory_order_relaxed);
  }

  // Notes the lock that the thread is about to wait for; null when it has entered it. Blocks for as
  // long as a reader copies a name.
  void SetAwaitedLock(TKZCriticalSection* lock) KZ_EXCLUDES(FWaitLock);

  [[nodiscard]] std::string CurrentCP() const { return std::string(FCurrentCP.Load().View()); }

  // The current checkpoint as a copy that needs no memory, for signal handlers.
  [[nodiscard]] TAtomicShortText<256, 255>::TCopy LoadCurrentCP() const noexcept {
    return FCurrentCP.Load();
  }

  // Tick of the current checkpoint in milliseconds; 0 before the first.
  [[nodiscard]] std::int64_t CPTime() const noexcept {
    return FCPTime.load(std::memory_order_relaxed);
  }

  // The allowance in seconds. The name is a given one.
  [[nodiscard]] std::int64_t PreviousCPTime() const noexcept {
    return FPreviousCPTime.load(std::memory_order_relaxed);
  }

  // Null while there is none.
  [[nodiscard]] const TCheckpointHistory* History() const noexcept {
    return FPublishedHistory.load(std::memory_order_acquire);
  }

  // The lock that the thread waits for, if any.
  [[nodiscard]] std::optional<TAwaitedLock> AwaitedLock() const KZ_EXCLUDES(FWaitLock);

  // Leaves the lock that the record's thread waits for as often as the calling thread has entered
  // it; does nothing when the calling thread does not hold it.
  void LeaveAwaitedLock() KZ_EXCLUDES(FWaitLock);

 private:
  std::atomic<std::int64_t> FCPTime = 0;
  std::atomic<std::int64_t> FPreviousCPTime = 0;
  TAtomicShortText<256, 255> FCurrentCP;

  // The history: FHistory for the record's own thread only, FPublishedHistory for readers.
  std::unique_ptr<TCheckpointHistory> FHistory;
  std::atomic<const TCheckpointHistory*> FPublishedHistory = nullptr;

  // A thread that holds it leaves other locks, but takes none. It is taken while the lock of
  // ThreadCPList is held.
  mutable TMutex FWaitLock;
  TKZCriticalSection* FAwaitedLock KZ_GUARDED_BY(FWaitLock) = nullptr;
};

}  // namespace guardian
