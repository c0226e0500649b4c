#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Event.h"
#include "common/FileDescriptor.h"
#include "diagnostics/KZCriticalSection.h"
#include "ipc/PayloadPool.h"
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
  // Frames the payload.
  void Append(std::string_view payload) KZ_EXCLUDES(FLock);
  [[nodiscard]] std::optional<TPipeWrite> Dequeue() KZ_EXCLUDES(FLock);

  // The same for the writer, which gives its last frame back: the memory of that serves frames to
  // come. False when there is none.
  [[nodiscard]] bool Exchange(TPipeWrite& write) KZ_EXCLUDES(FLock, FSpareLock);

  [[nodiscard]] std::size_t Count() KZ_EXCLUDES(FLock);

  // Drops the oldest ones until at most this many are left.
  void Limit(std::size_t maxItems) KZ_EXCLUDES(FLock);

  // Waits until there is a frame, Wake was called or the time is over.
  void WaitForData(std::chrono::milliseconds timeout) { FDataEvent.WaitFor(timeout); }

  // Ends a wait that is under way.
  void Wake() { FDataEvent.Signal(); }

 private:
  std::string TakeSpare() KZ_EXCLUDES(FSpareLock);
  void GiveSpare(TPipeWrite& write) KZ_EXCLUDES(FSpareLock);
  bool TakeLocked(TPipeWrite& write) KZ_REQUIRES(FLock);

  TKZCriticalSection FLock{"WriteQueue"};
  std::deque<TPipeWrite> FWrites KZ_GUARDED_BY(FLock);
  TMutex FSpareLock;
  std::vector<std::string> FSpare KZ_GUARDED_BY(FSpareLock);
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

  // Where the payloads that this connection receives come from.
  [[nodiscard]] const std::shared_ptr<TPayloadPool>& Payloads() const noexcept { return FPayloads; }

  // Ends both directions and wakes everybody. Never blocks.
  void End() noexcept;
  [[nodiscard]] bool Ended() const noexcept { return FEnded.load(); }

  // The reader's loop: hands over each payload, until the connection or the peer has ended.
  // Reading stops while too much is undelivered.
  void ReadAll(const TFrameParser::TSink& onPayload);

  // The writer's loop: writes what is queued, each frame with a single call, and tells the size of
  // each one that was written whole. Returns when the connection has ended.
  void WriteAll(const std::function<void(std::size_t)>& onSent);

 private:
  enum class TReadResult { Received, TimedOut, PeerGone };

  TReadResult QueuedRead(TFrameParser& parser, const TFrameParser::TSink& onPayload);
  void QueuedWrite(const TPipeWrite& write, const std::function<void(std::size_t)>& onSent);
  bool WatchedPathIsGone();

  const TFileDescriptor FSocket;
  const TPipeSide FSide;
  const std::string FWatchedPath;
  const std::uint32_t FMaxFrameSize;
  const std::int64_t FSerial;
  const std::shared_ptr<TPayloadPool> FPayloads = std::make_shared<TPayloadPool>();
  TWriteQueue FQueue;
  std::atomic<bool> FEnded = false;    // Atomic: a one-way flag that both loops look at.
  std::int64_t FPathLookedAtTick = 0;  // Reader only.
};

}  // namespace guardian
