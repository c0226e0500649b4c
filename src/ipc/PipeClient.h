#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Cancellation.h"
#include "common/FileDescriptor.h"
#include "diagnostics/KZCriticalSection.h"
#include "ipc/PipeEndpoint.h"
#include "ipc/PipeFrame.h"
#include "ipc/PipeObjects.h"
#include "ipc/WriteQueue.h"

namespace guardian {

// One end of a named pipe that somebody else serves. In the main thread:
//
//   TPipeClient client;
//   client.SetPipeName("scheduler");
//   client.OnPipeMessage = [&](auto&, std::int64_t, std::string_view payload) { Show(payload); };
//   if (client.Connect(1000)) client.Write("hello");
//   application.Run();  // Delivers the messages to the handler.
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

  // Frees a client where the thread is in doubt: outside the main thread it throws KZException and
  // leaves the client as it is.
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
  TWorkers TakeCurrent() KZ_EXCLUDES(FLock);
  TWorkers Take(std::int64_t serial) KZ_EXCLUDES(FLock);
  TWorkers Current() const KZ_EXCLUDES(FLock);

  TRegistration FRegistration{this, "PipeClient"};
  const TCancellation* const FStopping;
  // Atomics: FConnected and FPipe are read without the lock and written under it; the limit is a
  // setting of its own.
  std::atomic<bool> FConnected = false;
  std::atomic<std::int64_t> FPipe = kNoPipe;
  std::atomic<std::uint32_t> FMaxFrameSize = kNoFrameLimit;
  mutable TKZCriticalSection FLock{"PipeClient"};
  std::string FPipeName KZ_GUARDED_BY(FLock) = "PipeServer";
  TWorkers FCurrent KZ_GUARDED_BY(FLock);
  // Connections that have ended and whose end was not reported yet.
  std::vector<TWorkers> FEnding KZ_GUARDED_BY(FLock);
};

}  // namespace guardian
