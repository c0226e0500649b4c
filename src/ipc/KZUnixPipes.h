#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/Cancellation.h"
#include "common/Exceptions.h"
#include "diagnostics/KZCriticalSection.h"
#include "ipc/KZMessages.h"
#include "ipc/PipeConnection.h"

namespace guardian {

// Named pipes between two processes of one machine, over Unix-domain stream sockets. What travels
// is a sequence of framed messages.

class EPipeException : public KZException {
 public:
  using KZException::KZException;
};

// A pipe that is none: the 32-bit all-ones value widened without sign, not -1. Users of the
// transport compare with this number, so it stays.
inline constexpr std::int64_t kNoPipe = 4'294'967'295;

enum class TPipeContext { pcListener, pcWorker };

// Raised in the main thread, without any lock held. A pipe's number is not given to another
// connection before its disconnect event has been raised.
using TOnPipeConnect = std::function<void(TKZMessageReceiverClass& sender, std::int64_t pipe)>;
using TOnPipeDisconnect = std::function<void(TKZMessageReceiverClass& sender, std::int64_t pipe)>;
using TOnPipeError = std::function<void(TKZMessageReceiverClass& sender, std::int64_t pipe,
                                        TPipeContext context, std::int64_t errorCode)>;
// The payload is valid during the call only.
using TOnPipeMessage = std::function<void(TKZMessageReceiverClass& sender, std::int64_t pipe,
                                          std::string_view payload)>;
// The size is always 0: users rely on nothing else, and the true count stays inside.
using TOnPipeSent =
    std::function<void(TKZMessageReceiverClass& sender, std::int64_t pipe, std::uint32_t size)>;

// The slot of that event. Writers look whether it is set before they post a notice of each frame.
// Threads: assigned and called in the main thread; IsSet by any.
class TPipeSentSlot {
 public:
  TPipeSentSlot& operator=(TOnPipeSent handler) {
    FHandler = std::move(handler);
    FSet.store(static_cast<bool>(FHandler));
    return *this;
  }
  [[nodiscard]] bool IsSet() const noexcept { return FSet.load(); }
  [[nodiscard]] const TOnPipeSent& Handler() const noexcept { return FHandler; }

 private:
  TOnPipeSent FHandler;
  std::atomic<bool> FSet = false;  // Atomic: see IsSet.
};

// What the transport's threads post to their owner.
inline constexpr std::uint32_t kMsgPipeErrorListener = 1124;
inline constexpr std::uint32_t kMsgPipeErrorWorker = 1125;
inline constexpr std::uint32_t kMsgPipeConnect = 1126;
inline constexpr std::uint32_t kMsgPipeDisconnect = 1127;
inline constexpr std::uint32_t kMsgPipeSent = 1128;
inline constexpr std::uint32_t kMsgPipeMessage = 1129;
inline constexpr std::uint32_t kMsgPipeWorkerEnded = 1130;  // LParam: the connection's serial.

// Starts the unit. Main thread.
void StartPipes();

// Writes to the error log what is still alive, and forgets the pipe directory. Main thread, after
// all clients and servers are gone.
void StopPipes();

// Where the socket files live: what was set; else, fixed at the first use, the mutex directory of
// the settings, or "/tmp" when that is empty.
void SetPipeDirectory(std::string directory);
[[nodiscard]] std::string PipeDirectory();

// The pipe directory, "/" and the name. Throws KZException when it is too long for a socket.
[[nodiscard]] std::string FullPipeNameOf(const std::string& pipeName);

// A connection with its two threads.
class TPipeWorkers;

// The first base of what is created in the main thread only: refuses before anything is built.
class TMadeInMainThread {
 protected:
  // Throws KZException with this text outside the main thread.
  explicit TMadeInMainThread(const char* refusal);
};

// What clients and servers have in common: the events and how the transport's messages raise them.
// An event may free the object that raises it.
// Owner: see TPipeClient and TPipeServer. Threads: main thread, the slots set before the first
// connection, but for OnPipeSent, which may be set at any time.
class TPipeEndpoint : private TMadeInMainThread, public TKZMessageReceiverClass {
 public:
  TOnPipeError OnPipeError;
  TOnPipeDisconnect OnPipeDisconnect;
  TOnPipeMessage OnPipeMessage;
  TPipeSentSlot OnPipeSent;

 protected:
  explicit TPipeEndpoint(const char* refusal) : TMadeInMainThread(refusal) {}
  using TWorkers = std::shared_ptr<TPipeWorkers>;

  // Raises the event of one of the numbers 1124, 1125, 1128 and 1129; nothing for any other. The
  // object may be gone afterwards.
  void RaiseEvent(const TKZMessage& message);
  void RaiseDisconnect(std::int64_t pipe);

 private:
  void RaiseError(const TKZMessage& message, TPipeContext context);
  void RaiseMessage(const TKZMessage& message);
};

// One end of a named pipe that somebody else serves.
//
// Each connection has a reader and a writer thread, which post and never call out.
// Owner: anyone. Created and freed in the main thread only.
// Threads: Connect, Disconnect, Write and the queries by any thread, Connect by one at a time;
// events come in the main thread. FLock guards the hand-over of connections and is held for no
// call and no event.
// Lifetime: the cancellation outlives it. Freeing it ends and joins its threads.
class TPipeClient final : public TPipeEndpoint {
 public:
  enum class TWait { No, Yes };

  // Throws KZException when called outside the main thread. A cancelled cancellation ends the
  // waits of Connect.
  explicit TPipeClient(const TCancellation* stopping = nullptr);
  ~TPipeClient() override;

  // The way to free a client where the thread is in doubt: throws KZException, and leaves it as it
  // is, outside the main thread.
  static void Free(std::unique_ptr<TPipeClient>& client);

  // Throws EPipeException for an empty name, one of 64 characters and more or with a backslash, and
  // while connected.
  void SetPipeName(std::string name) KZ_EXCLUDES(FLock);
  [[nodiscard]] std::string PipeName() const KZ_EXCLUDES(FLock);

  // Payloads above this many bytes are framing errors, from the next connection on.
  void SetMaxFrameSize(std::uint32_t bytes) noexcept { FMaxFrameSize.store(bytes); }

  // Connects and starts the threads; true also when it was connected. Fails at once without a
  // socket file; else tries once and then again every 500 ms, waitMs div 500 times, running
  // synchronise requests in the main thread. Throws KZException when the path is too long.
  bool Connect(int waitMs) KZ_EXCLUDES(FLock);

  // Ends the connection; OnPipeDisconnect still follows. With TWait::Yes waits for the reader, and
  // about a second for the writer.
  void Disconnect(TWait wait) KZ_EXCLUDES(FLock);

  // Queues one frame; false when not connected or when the peer has gone. Never blocks on the
  // socket. What is queued when a connection ends is lost with it.
  bool Write(std::string_view payload) KZ_EXCLUDES(FLock);

  // Waits in steps of 100 ms until all frames are taken by the writer, or the time is over.
  void WaitUntilWriteQueueEmpty(int seconds) KZ_EXCLUDES(FLock);

  // Takes the oldest frame that is not written yet.
  [[nodiscard]] std::optional<TPipeWrite> Dequeue() KZ_EXCLUDES(FLock);

  [[nodiscard]] bool Connected() const noexcept { return FConnected.load(); }
  [[nodiscard]] std::int64_t Pipe() const noexcept { return FPipe.load(); }

  void WndMethod(TKZMessage& message) override;

 private:
  bool StartWorkers(TFileDescriptor socket, const std::string& path) KZ_EXCLUDES(FLock);
  void RemoveWorkerThread(std::int64_t serial) KZ_EXCLUDES(FLock);
  void ForgetPipe() KZ_EXCLUDES(FLock);
  bool Forget(std::int64_t serial) KZ_EXCLUDES(FLock);
  TWorkers Take(std::int64_t serial) KZ_EXCLUDES(FLock);
  TWorkers Current() const KZ_EXCLUDES(FLock);

  TRegistration FRegistration{this, "PipeClient"};
  const TCancellation* const FStopping;
  std::atomic<bool> FConnected = false;       // Atomics: read without the lock,
  std::atomic<std::int64_t> FPipe = kNoPipe;  // written under it.
  std::atomic<std::uint32_t> FMaxFrameSize = kNoFrameLimit;
  mutable TKZCriticalSection FLock{"PipeClient"};
  std::string FPipeName KZ_GUARDED_BY(FLock) = "PipeServer";
  TWorkers FCurrent KZ_GUARDED_BY(FLock);
  std::vector<TWorkers> FEnding KZ_GUARDED_BY(FLock);  // Disconnected, end not reported yet.
};

// Serves a named pipe to any number of clients.
//
// One listener thread, and a reader and a writer thread for each client.
// Owner: anyone. Created, switched on and off and freed in the main thread only.
// Threads: Write, LimitWriteQueues and the queries by any thread; events come in the main thread.
// FLock guards the list of clients and is held for no call and no event.
// Lifetime: freeing it ends and joins its threads and removes the socket file.
class TPipeServer final : public TPipeEndpoint {
 public:
  // Throws KZException when called outside the main thread.
  TPipeServer();
  ~TPipeServer() override;

  // As TPipeClient::Free.
  static void Free(std::unique_ptr<TPipeServer>& server);

  // As TPipeClient::SetPipeName; not while active. Main thread.
  void SetPipeName(std::string name);
  [[nodiscard]] const std::string& PipeName() const noexcept { return FPipeName; }

  // As TPipeClient::SetMaxFrameSize.
  void SetMaxFrameSize(std::uint32_t bytes) noexcept { FMaxFrameSize.store(bytes); }

  // Starts listening, or ends it and every connection. A listener that cannot listen says so in
  // the error log and ends. While it is being switched off it counts as active, and what an event
  // asks for meanwhile is left undone. Throws KZException when the path is too long. Main thread.
  void SetActive(bool active) KZ_EXCLUDES(FLock);
  [[nodiscard]] bool Active() const noexcept { return FListener != nullptr || FShuttingDown; }

  // Queues one frame for a client; false when there is no such pipe.
  bool Write(std::int64_t pipe, std::string_view payload) KZ_EXCLUDES(FLock);

  [[nodiscard]] std::size_t ClientCount() const KZ_EXCLUDES(FLock);
  // The pipe at an index; 0 when it is out of range.
  [[nodiscard]] std::int64_t Clients(std::size_t index) const KZ_EXCLUDES(FLock);

  // Drops the oldest frames of every client that has more than this many waiting.
  void LimitWriteQueues(std::size_t maxItems) KZ_EXCLUDES(FLock);

  void WndMethod(TKZMessage& message) override;

  TOnPipeConnect OnPipeConnect;

 private:
  void AddClient(TFileDescriptor socket) KZ_EXCLUDES(FLock);
  void RemoveClient(const TWorkers& client);
  TWorkers TakeLeaving(std::int64_t pipe);
  void DoShutdown() KZ_EXCLUDES(FLock);
  TWorkers FindClient(std::int64_t pipe) const KZ_EXCLUDES(FLock);
  TWorkers TakeClient(std::int64_t serial) KZ_EXCLUDES(FLock);

  TRegistration FRegistration{this, "PipeServer"};
  std::string FPipeName = "PipeServer";                      // Main thread only.
  std::atomic<std::uint32_t> FMaxFrameSize = kNoFrameLimit;  // Atomic: a setting of its own.
  std::unique_ptr<TKZThread> FListener;                      // Main thread only.
  bool FShuttingDown = false;                                // Main thread only.
  std::vector<TWorkers> FLeaving;  // Main thread only: removed, disconnect not raised yet.
  mutable TKZCriticalSection FLock{"PipeServerClients"};
  std::vector<TWorkers> FClients KZ_GUARDED_BY(FLock);
};

}  // namespace guardian
