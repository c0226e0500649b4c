#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/FileDescriptor.h"
#include "diagnostics/KZCriticalSection.h"
#include "ipc/PipeEndpoint.h"
#include "ipc/PipeFrame.h"
#include "ipc/PipeObjects.h"

namespace guardian {

// Serves a named pipe to any number of clients. The Guardian itself has none: the daemon and the
// maker's other programs are the servers.
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
  // the error log and ends; the server is then no longer active, and can be switched on again.
  // While it is being switched off it counts as active, and what an event asks for meanwhile is
  // left undone. Throws KZException when the path is too long, and ESystemError when the listener
  // cannot be started. Main thread.
  void SetActive(bool active) KZ_EXCLUDES(FLock);
  [[nodiscard]] bool Active() const noexcept {
    return FRemovingListener || (FListener && !FListener->Finished());
  }

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
  void ReportDisconnect(std::int64_t pipe);
  void DoShutdown() KZ_EXCLUDES(FLock);
  bool RemoveListenerThread();
  TWorkers FindClient(std::int64_t pipe) const KZ_EXCLUDES(FLock);
  TWorkers TakeClient(std::int64_t serial) KZ_EXCLUDES(FLock);

  TRegistration FRegistration{this, "PipeServer"};
  std::atomic<std::uint32_t> FMaxFrameSize = kNoFrameLimit;  // Atomic: a setting of its own.
  // Main thread only, as far as the lock. Leaving are the removed clients whose disconnect was not
  // raised yet.
  std::string FPipeName = "PipeServer";
  std::shared_ptr<TKZThread> FListener;
  bool FRemovingListener = false;
  std::vector<TWorkers> FLeaving;
  mutable TKZCriticalSection FLock{"PipeServerClients"};
  std::vector<TWorkers> FClients KZ_GUARDED_BY(FLock);
};

}  // namespace guardian
