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
#include "ipc/BufferPool.h"

namespace guardian {

// The payloads of one connection that are on their way to its owner: counts their bytes, so that a
// flood can be held back, and uses their buffers again.
// Owner: shared by the connection and by every payload, which may outlive the connection.
// Threads: Take by the connection's reader alone, the rest by any.
class TPayloadPool {
 public:
  // More than this much undelivered stops the reading. Each message counts its bytes and
  // kMessageCost, since without that a flood of empty frames would count nothing.
  static constexpr std::size_t kMaxUndelivered = 16'777'216;
  static constexpr std::size_t kMessageCost = 256;

  // A buffer with a copy of the bytes, which counts as undelivered until Give.
  [[nodiscard]] std::unique_ptr<std::string> Take(std::string_view bytes);

  // Takes back the buffer of a message that was delivered or dropped.
  void Give(std::unique_ptr<std::string> buffer) noexcept;

  // True while so much is undelivered that no more is to be read.
  [[nodiscard]] bool IsFull() const noexcept { return FUndelivered.load() > kMaxUndelivered; }

  // Waits until the pool is no longer full, Wake is called or the time is over.
  void WaitForRoom(std::chrono::milliseconds timeout) { FRoomEvent.WaitFor(timeout); }
  void Wake() { FRoomEvent.Signal(); }

 private:
  TBufferPool FBuffers;
  std::vector<std::unique_ptr<std::string>> FTaken;  // The reader's share of the buffers.
  std::atomic<std::size_t> FUndelivered = 0;  // Atomic: the reader adds, the owner subtracts.
  TKZEvent FRoomEvent{"PayloadRoom"};
};

// Gives a payload back to its pool; frees it when it has none.
struct TPayloadDeleter {
  TPayloadDeleter() noexcept = default;
  explicit TPayloadDeleter(std::shared_ptr<TPayloadPool> pool) noexcept : Pool(std::move(pool)) {}
  // For a payload without a pool. Implicit, so that std::make_unique will do.
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
