#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "common/Mutex.h"
#include "ipc/KZMessages.h"

namespace guardian {

// A synchronous call, of which the two sides agree: either the main thread begins it, and then the
// caller waits for its end whatever happens, or the caller abandons it, and then it never runs.
// Owner: shared by the caller and the message.
// Threads: Begin, RunCallback and Finish by the main thread, the rest by the caller.
class TSynchronousCall {
 public:
  explicit TSynchronousCall(std::function<void()> callback) : FCallback(std::move(callback)) {}

  // Between Begin and Finish.
  void RunCallback() const { FCallback(); }

  // False when the caller has gone.
  [[nodiscard]] bool Begin() noexcept { return Leave(TState::Queued, TState::Running); }
  void Finish() noexcept { FState.store(TState::Finished); }

  // False when the call has begun.
  [[nodiscard]] bool Abandon() noexcept { return Leave(TState::Queued, TState::Abandoned); }
  [[nodiscard]] bool Finished() const noexcept { return FState.load() == TState::Finished; }

 private:
  enum class TState { Queued, Running, Finished, Abandoned };

  bool Leave(TState from, TState to) noexcept { return FState.compare_exchange_strong(from, to); }

  const std::function<void()> FCallback;
  std::atomic<TState> FState = TState::Queued;  // Atomic: each change is one step of one side.
};

// One queued message: for a receiver, or a synchronous call.
// Owner: the list that holds it, or the function that took it off.
// Threads: one at a time.
struct TMessageWrapper {
  TMessageWrapper* Next = nullptr;
  TKZMessage Message;
  TKZMessageReceiverClass* Receiver = nullptr;
  std::int64_t PostTime = 0;  // Milliseconds of SystemTickCount().
  TMessagePayload Payload;    // Freed with the wrapper, delivered or not.
  std::shared_ptr<TSynchronousCall> Call;

  [[nodiscard]] bool Synchronous() const noexcept { return Call != nullptr; }
};

// A queue of wrappers without a lock, linked through Next, so that adding a wrapper allocates
// nothing. Frees at its end the wrappers that it still holds. Threads: not shared.
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

  // The oldest wrapper; null when there is none.
  [[nodiscard]] std::unique_ptr<TMessageWrapper> TakeFirst() noexcept;

  // Takes all that the predicate chooses; the others keep their order.
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
// It also keeps used wrappers, and each Append hands one of them out. They share the chain's lock
// and links, so that a message under load costs one lock and no allocation. Owner: the message
// unit, which never frees it, so that a late caller finds it closed, not gone. Threads: any. The
// lock is held for a few pointers and never while a message is freed.
class TMessageList {
 public:
  enum class TAppended { Refused, AsFirst, AsFurther };

  // More used wrappers than this are not kept.
  static constexpr std::size_t kMaxSpares = 1024;

  void Open() KZ_EXCLUDES(FLock);
  // Returns what the list held.
  [[nodiscard]] TMessageChain Close() KZ_EXCLUDES(FLock);
  [[nodiscard]] bool Empty() const KZ_EXCLUDES(FLock);

  // Appends the wrapper and puts a used one, or null, in its place. When the list does not exist it
  // refuses, and the wrapper stays as it is.
  [[nodiscard]] TAppended Append(std::unique_ptr<TMessageWrapper>& wrapper) KZ_EXCLUDES(FLock);

  // Takes the whole chain, and gives the list used wrappers, which hold nothing any more, to keep.
  [[nodiscard]] TMessageChain TakeAll(TMessageChain used) KZ_EXCLUDES(FLock);
  [[nodiscard]] TMessageChain TakeIf(const std::function<bool(const TMessageWrapper&)>& chosen)
      KZ_EXCLUDES(FLock);

  // Puts what TakeAll gave in front again.
  void PutBack(TMessageChain chain) KZ_EXCLUDES(FLock);

 private:
  mutable TMutex FLock;
  bool FOpen KZ_GUARDED_BY(FLock) = false;
  TMessageChain FChain KZ_GUARDED_BY(FLock);
  TMessageChain FSpares KZ_GUARDED_BY(FLock);
};

}  // namespace guardian
