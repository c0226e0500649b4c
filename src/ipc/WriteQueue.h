#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "common/Event.h"
#include "diagnostics/KZCriticalSection.h"
#include "ipc/BufferPool.h"
#include "ipc/PipeObjects.h"

namespace guardian {

// One queued outgoing frame, complete with header and trailer.
struct TPipeWrite {
  std::unique_ptr<std::string> Buffer;
};

// The frames that wait for a connection's writer, oldest first.
// Owner: the connection.
// Threads: any.
class TWriteQueue {
 public:
  // Frames the payload.
  void Append(std::string_view payload) KZ_EXCLUDES(FLock);

  // The oldest frame; nothing when the queue is empty.
  [[nodiscard]] std::optional<TPipeWrite> Dequeue() KZ_EXCLUDES(FLock);

  // Takes back the frame that the writer is done with: its memory serves frames to come.
  void Recycle(TPipeWrite write) noexcept { FBuffers.Give(std::move(write.Buffer)); }

  [[nodiscard]] std::size_t Count() KZ_EXCLUDES(FLock);

  // Drops the oldest frames until at most this many are left.
  void Limit(std::size_t maxItems) KZ_EXCLUDES(FLock);

  // Waits until there is a frame, the queue is closed or the time is over. Call it after a Dequeue
  // that gave nothing.
  void WaitForData(std::chrono::milliseconds timeout) { FDataEvent.WaitFor(timeout); }

  // From now on nobody waits. The frames stay.
  void Close() KZ_EXCLUDES(FLock);

 private:
  TBufferPool FBuffers;
  TKZCriticalSection FLock{"WriteQueue"};
  std::deque<TPipeWrite> FWrites KZ_GUARDED_BY(FLock);
  bool FClosed KZ_GUARDED_BY(FLock) = false;
  TKZEvent FDataEvent{"WriteQueueDataEvent", TEventReset::Manual};
  const TRegistration FRegistration{this, "WriteQueue"};
};

}  // namespace guardian
