#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "common/FileDescriptor.h"
#include "ipc/PayloadPool.h"
#include "ipc/PipeFrame.h"
#include "ipc/WriteQueue.h"

namespace guardian {

enum class TPipeSide { Client, Server };

// One connected socket with its write queue, shared by its reader, its writer and its owner.
//
// The descriptor is never closed while a thread can be in a call on it: End only shuts the socket
// down, which wakes both threads, and the last holder closes it. The owner holds on until it has
// been told of the end, so that the number cannot come back for another connection before.
// Owner: shared.
// Threads: ReadAll by the reader, WriteAll by the writer, the rest by any thread.
// Lifetime: counted in PipeCounters while the socket is open.
class TPipeConnection {
 public:
  using TOnSent = std::function<void(std::size_t bytes)>;

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

  // The pool of the payloads that this connection receives.
  [[nodiscard]] const std::shared_ptr<TPayloadPool>& Payloads() const noexcept { return FPayloads; }

  // Ends both directions and wakes both threads. Never blocks.
  void End() noexcept;
  [[nodiscard]] bool Ended() const noexcept { return FEnded.load(); }

  // The reader's loop: hands over each payload, until the connection or the peer has ended.
  // Reading stops while too much is undelivered.
  void ReadAll(const TFrameParser::TSink& onPayload);

  // The writer's loop: writes what is queued, each frame with a single call, and tells the size of
  // each frame that was written whole. Returns when the connection has ended.
  void WriteAll(const TOnSent& onSent);

 private:
  enum class TReadResult { Received, TimedOut, PeerGone };

  // Negative: no bytes but this error number.
  ssize_t Receive(std::span<char> room, int flags) const noexcept;
  TReadResult QueuedRead(TFrameParser& parser, const TFrameParser::TSink& onPayload);
  void QueuedWrite(const TPipeWrite& write, const TOnSent& onSent);

  const TFileDescriptor FSocket;
  const TPipeSide FSide;
  const std::string FWatchedPath;
  const std::uint32_t FMaxFrameSize;
  const std::int64_t FSerial;
  // The threads' checkpoints, which each leaves before it waits and when it goes on.
  const std::string FSocketText = "Sock#" + std::to_string(Pipe());
  const std::string FReads = "PipeRead:" + FSocketText;
  const std::string FWaitsToRead = "PipeRead:Wait" + FSocketText;
  const std::string FWrites = "PipeWrite:" + FSocketText;
  const std::string FWaitsToWrite = "WaitforDataFor" + FSocketText;
  const std::shared_ptr<TPayloadPool> FPayloads = std::make_shared<TPayloadPool>();
  TWriteQueue FQueue;
  std::atomic<bool> FEnded = false;  // Atomic: a one-way flag that both loops look at.
};

}  // namespace guardian
