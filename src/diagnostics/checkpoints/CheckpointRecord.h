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

  // How many exist.
  [[nodiscard]] static int Owners() noexcept;

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
  TCheckpointHistory() = default;

  std::atomic<std::int32_t> FIndex = 0;
  std::array<TCheckpointHistoryEntry, kEntries> FEntries{};
};

// A lock that a thread waits for, as it was at one moment.
struct TAwaitedLock {
  std::string Name;
  std::int32_t Holder = 0;  // Thread id, 0 when it was free at that moment.
};

// What is known of one thread's progress.
//
// The awaited lock is safe to read although it belongs to somebody else: a thread marks the lock
// before it blocks and clears the mark before it returns from Enter, both under FWaitLock, and a
// reader looks through the mark while it holds FWaitLock. So the waiting thread cannot leave Enter
// during the look, and a lock outlives every thread that is in its Enter.
// Owner: shared by its thread and by ThreadCPList, so that it outlives the thread while listed.
// Threads: Pass, AppendHistory, DropHistory, SetAllowance and SetAwaitedLock by the record's own
// thread, the rest by any. A thread that reads the history of another holds the lock of
// ThreadCPList, under which DropHistory is called as long as the record is listed.
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

  // Adds to the history, which is made when there is none. Returns false, with nothing added, when
  // too many threads have one already. Throws std::bad_alloc.
  [[nodiscard]] bool AppendHistory(std::string_view text, std::int64_t tick);
  void DropHistory() noexcept;

  // Seconds of silence that those who judge this thread by its checkpoint time grant on top.
  void SetAllowance(std::int64_t seconds) noexcept {
    FPreviousCPTime.store(seconds, std::memory_order_relaxed);
  }

  // The lock that the thread is about to block on; null when it has it. Blocks for as long as a
  // reader copies a name.
  void SetAwaitedLock(TKZCriticalSection* lock) KZ_EXCLUDES(FWaitLock);

  [[nodiscard]] std::string CurrentCP() const { return std::string(FCurrentCP.Load().View()); }

  // The same for signal handlers.
  [[nodiscard]] TAtomicShortText<256, 255>::TCopy LoadCurrentCP() const noexcept {
    return FCurrentCP.Load();
  }

  // Tick of the current checkpoint in milliseconds; 0 before the first.
  [[nodiscard]] std::int64_t CPTime() const noexcept {
    return FCPTime.load(std::memory_order_relaxed);
  }

  // The second time value, handed out beside CPTime: the allowance in seconds.
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
  std::unique_ptr<TCheckpointHistory> FHistory;  // The record's own thread only.
  std::atomic<const TCheckpointHistory*> FPublishedHistory = nullptr;  // The same, for readers.
  // Taken inside the lock of ThreadCPList; inside it a lock is left, but none is taken.
  mutable TMutex FWaitLock;
  TKZCriticalSection* FAwaitedLock KZ_GUARDED_BY(FWaitLock) = nullptr;
};

}  // namespace guardian
