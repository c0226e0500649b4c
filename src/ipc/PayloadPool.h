#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/Event.h"
#include "common/Mutex.h"

namespace guardian {

// The payloads of one connection that are on their way to its owner: how much they are, so that a
// flood can be held back, and their buffers, so that the allocator need not be asked for each.
// Owner: shared by the connection and by every payload, which may outlive it.
// Threads: any; buffers are taken by the connection's reader alone.
class TPayloadPool {
 public:
  TPayloadPool();
  TPayloadPool(const TPayloadPool&) = delete;
  TPayloadPool& operator=(const TPayloadPool&) = delete;

  // A buffer with a copy of the bytes, counted as undelivered until Give.
  [[nodiscard]] std::unique_ptr<std::string> Take(std::string_view bytes) KZ_EXCLUDES(FLock);

  // The buffer was delivered, or dropped.
  void Give(std::unique_ptr<std::string> buffer) noexcept KZ_EXCLUDES(FLock);

  // True while so much is undelivered that no more is to be read.
  [[nodiscard]] bool IsFull() const noexcept;

  // Waits until it is no longer full, Wake is called or the time is over.
  void WaitForRoom(std::chrono::milliseconds timeout) { FRoomEvent.WaitFor(timeout); }
  void Wake() { FRoomEvent.Signal(); }

 private:
  TMutex FLock;
  std::vector<std::unique_ptr<std::string>> FSpare KZ_GUARDED_BY(FLock);
  std::vector<std::unique_ptr<std::string>> FTaken;  // The reader's share of the spare ones.
  std::atomic<std::size_t> FUndelivered = 0;  // Atomic: the reader adds, the owner subtracts.
  TKZEvent FRoomEvent{"PayloadRoom"};
};

// Gives a payload back to its pool; frees it when it has none.
struct TPayloadDeleter {
  TPayloadDeleter() noexcept = default;
  explicit TPayloadDeleter(std::shared_ptr<TPayloadPool> pool) noexcept : Pool(std::move(pool)) {}
  // For a payload of no pool; implicit, so that std::make_unique will do.
  TPayloadDeleter(std::default_delete<std::string> /*plain*/) noexcept {}

  void operator()(std::string* buffer) const noexcept {
    std::unique_ptr<std::string> owned(buffer);
    if (Pool) Pool->Give(std::move(owned));
  }

  std::shared_ptr<TPayloadPool> Pool;
};

// Bytes that travel with a message and are freed with it, delivered or not.
using TMessagePayload = std::unique_ptr<std::string, TPayloadDeleter>;

// A payload of the pool.
[[nodiscard]] TMessagePayload MakePayload(const std::shared_ptr<TPayloadPool>& pool,
                                          std::string_view bytes);

}  // namespace guardian
