#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "common/Mutex.h"
#include "ipc/KZMessages.h"

namespace guardian {

// What the two sides of a synchronous call agree on: either the main thread begins it, and then
// the caller waits for its end whatever happens, or the caller abandons it, and then it never runs.
// Threads: any.
class TSynchronousCall {
 public:
  explicit TSynchronousCall(std::function<void()> callback) : FCallback(std::move(callback)) {}

  // Main thread, once begun.
  void RunCallback() const { FCallback(); }

  // Main thread; false when the caller has gone.
  [[nodiscard]] bool Begin() noexcept { return Leave(TState::Queued, TState::Running); }
  void Finish() noexcept { FState.store(TState::Finished); }

  // The caller; false when the call has begun.
  [[nodiscard]] bool Abandon() noexcept { return Leave(TState::Queued, TState::Abandoned); }
  [[nodiscard]] bool Finished() const noexcept { return FState.load() == TState::Finished; }

 private:
  enum class TState { Queued, Running, Finished, Abandoned };

  bool Leave(TState from, TState to) noexcept { return FState.compare_exchange_strong(from, to); }

  const std::function<void()> FCallback;
  std::atomic<TState> FState = TState::Queued;  // Atomic: each change is one step of one side.
};

// One queued message: for a receiver, or a synchronous call.
// Owner: the list that holds it, or whoever took it off. Threads: one at a time.
struct TMessageWrapper {
  TMessageWrapper* Next = nullptr;
  TKZMessage Message;
  TKZMessageReceiverClass* Receiver = nullptr;
  std::int64_t PostTime = 0;  // Milliseconds of SystemTickCount().
  TMessagePayload Payload;    // Freed with the wrapper, delivered or not.
  std::shared_ptr<TSynchronousCall> Call;

  [[nodiscard]] bool Synchronous() const noexcept { return Call != nullptr; }
};

// A queue of wrappers without a lock, linked through Next, so that adding one allocates nothing.
// Owner: whoever drains it; it frees what it still holds.
// Threads: not shared.
class TMessageChain {
 public:
  TMessageChain() noexcept = default;
  ~TMessageChain() { Clear(); }
  TMessageChain(TMessageChain&& other) noexcept
      : FFirst(std::exchange(other.FFirst, nullptr)),
        FLast(std::exchange(other.FLast, nullptr)),
        FCount(std::exchange(other.FCount, 0)) {}
  TMessageChain& operator=(TMessageChain&& other) noexcept {
    std::swap(FFirst, other.FFirst);
    std::swap(FLast, other.FLast);
    std::swap(FCount, other.FCount);
    return *this;
  }
  TMessageChain(const TMessageChain&) = delete;
  TMessageChain& operator=(const TMessageChain&) = delete;

  [[nodiscard]] bool Empty() const noexcept { return FFirst == nullptr; }
  [[nodiscard]] std::size_t Count() const noexcept { return FCount; }
  void Append(std::unique_ptr<TMessageWrapper> wrapper) noexcept;
  void Append(TMessageChain chain) noexcept;

  // The oldest one; null when there is none.
  [[nodiscard]] std::unique_ptr<TMessageWrapper> TakeFirst() noexcept;

  // All that the predicate chooses; the others keep their order.
  [[nodiscard]] TMessageChain TakeIf(const std::function<bool(const TMessageWrapper&)>& chosen);

 private:
  void Clear() noexcept;

  TMessageWrapper* FFirst = nullptr;
  TMessageWrapper* FLast = nullptr;
  std::size_t FCount = 0;
};

// A chain that threads share. It exists from Open to Close only: outside it takes nothing in and
// holds nothing.
//
// Wrappers that have been used can be given back to it. Whoever appends gets one of them in return,
// under the same lock, so that under load hardly anything is allocated.
// Owner: the message unit, which never frees it, so that a late caller finds it closed, not gone.
// Threads: any. The lock is held for a few pointers and never while a message is freed.
class TMessageList {
 public:
  enum class TAppended { Refused, AsFirst, AsFurther };

  // The most that is kept of used wrappers.
  static constexpr std::size_t kMaxSpares = 1024;

  explicit TMessageList(std::string name) : FName(std::move(name)) {}

  void Open() KZ_EXCLUDES(FLock);
  [[nodiscard]] TMessageChain Close() KZ_EXCLUDES(FLock);
  [[nodiscard]] bool Exists() const KZ_EXCLUDES(FLock);
  [[nodiscard]] bool Empty() const KZ_EXCLUDES(FLock);

  // Leaves a used wrapper in the place of the appended one, or null; refused, and the wrapper left
  // as it is, when the list does not exist.
  [[nodiscard]] TAppended Append(std::unique_ptr<TMessageWrapper>& wrapper) KZ_EXCLUDES(FLock);

  // The chain given is of used wrappers, which hold nothing any more.
  [[nodiscard]] TMessageChain TakeAll(TMessageChain used) KZ_EXCLUDES(FLock);
  [[nodiscard]] TMessageChain TakeIf(const std::function<bool(const TMessageWrapper&)>& chosen)
      KZ_EXCLUDES(FLock);

  // Puts in front again what TakeAll gave.
  void PutBack(TMessageChain chain) KZ_EXCLUDES(FLock);

  [[nodiscard]] const std::string& Name() const noexcept { return FName; }

 private:
  const std::string FName;
  mutable TMutex FLock;
  bool FOpen KZ_GUARDED_BY(FLock) = false;
  TMessageChain FChain KZ_GUARDED_BY(FLock);
  TMessageChain FSpares KZ_GUARDED_BY(FLock);
};

}  // namespace guardian
