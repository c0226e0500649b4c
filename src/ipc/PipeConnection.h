#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "common/Event.h"
#include "common/FileDescriptor.h"
#include "diagnostics/KZCriticalSection.h"
#include "ipc/PipeFrame.h"
#include "ipc/PipeObjects.h"

namespace guardian {

enum class TPipeSide { Client, Server };

// One queued outgoing frame, complete with header and trailer.
struct TPipeWrite {
  std::string Buffer;
};

// The frames that wait for a connection's writer, oldest first.
// Owner: the connection. Threads: any.
class TWriteQueue {
 public:
  void Append(TPipeWrite write) KZ_EXCLUDES(FLock);
  [[nodiscard]] std::optional<TPipeWrite> Dequeue() KZ_EXCLUDES(FLock);
  [[nodiscard]] std::size_t Count() KZ_EXCLUDES(FLock);

  // Drops the oldest ones until at most this many are left.
  void Limit(std::size_t maxItems) KZ_EXCLUDES(FLock);

  // Waits until there is a frame or Wake was called; returns whether one of both.
  bool WaitForData(std::chrono::milliseconds timeout) { return FDataEvent.WaitFor(timeout); }

  // Ends this wait and all later ones at once.
  void Wake() { FDataEvent.Signal(); }

 private:
  TKZCriticalSection FLock{"WriteQueue"};
  std::deque<TPipeWrite> FWrites KZ_GUARDED_BY(FLock);
  TKZEvent FDataEvent{"WriteQueueDataEvent", TEventReset::Manual};
  const TRegistration FRegistration{this, "WriteQueue"};
};

// One connected socket with its write queue, shared by its reader, its writer and its owner.
//
// The descriptor is never closed while a thread can be in a call on it: End only shuts the socket
// down, which wakes both threads, and the last holder closes it. The owner holds on until it has
// been told of the end, so that the number cannot come back for another connection before.
// Owner: shared. Threads: any, as said. Lifetime: counted in PipeCounters while the socket is open.
class TPipeConnection {
 public:
  // The path is that of the socket file whose disappearance ends the connection; empty for none.
  TPipeConnection(TFileDescriptor socket, TPipeSide side, std::string watchedPath,
                  std::uint32_t maxFrameSize);
  ~TPipeConnection();
  TPipeConnection(const TPipeConnection&) = delete;
  TPipeConnection& operator=(const TPipeConnection&) = delete;

  // The descriptor, sign-extended.
  [[nodiscard]] std::int64_t Pipe() const noexcept { return FSocket.Get(); }

  // Never the same for two connections of the process.
  [[nodiscard]] std::int64_t Serial() const noexcept { return FSerial; }
  [[nodiscard]] TPipeSide Side() const noexcept { return FSide; }
  [[nodiscard]] TWriteQueue& Queue() noexcept { return FQueue; }

  // Ends both directions and wakes everybody. Never blocks.
  void End() noexcept;
  [[nodiscard]] bool Ended() const noexcept { return FEnded.load(); }

  // The reader's loop: hands over each payload, until the connection or the peer has ended; then
  // ends the connection. Reading stops while too many bytes are undelivered.
  void ReadAll(const TFrameParser::TSink& onPayload);

  // The writer's loop: writes what is queued, each frame with a single call, and tells the size of
  // each one that was written whole. Returns when the connection has ended.
  void WriteAll(const std::function<void(std::size_t)>& onSent);

  // Bytes that were handed over and are not delivered yet. Any thread.
  void AddUndelivered(std::size_t bytes) noexcept { FUndelivered.fetch_add(bytes); }
  void RemoveUndelivered(std::size_t bytes);

 private:
  enum class TReadResult { Got, Nothing, PeerGone };

  TReadResult QueuedRead(TFrameParser& parser, const TFrameParser::TSink& onPayload);
  void QueuedWrite(const std::function<void(std::size_t)>& onSent);
  bool WaitReadable() const;
  bool WatchedPathIsGone();
  bool TooManyUndelivered() const noexcept;

  const TFileDescriptor FSocket;
  const TPipeSide FSide;
  const std::string FWatchedPath;
  const std::uint32_t FMaxFrameSize;
  const std::int64_t FSerial;
  TWriteQueue FQueue;
  std::atomic<bool> FEnded = false;           // Atomic: a one-way flag that both loops look at.
  std::atomic<std::size_t> FUndelivered = 0;  // Atomic: the reader adds, the main thread takes.
  TKZEvent FDeliveredEvent{"PipeDelivered"};
  std::int64_t FPathLookedAtTick = 0;  // Reader only.
};

}  // namespace guardian
