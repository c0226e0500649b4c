#include "ipc/PipeServer.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "common/MainThread.h"
#include "diagnostics/KZCheckpoints.h"
#include "ipc/PipeDirectory.h"
#include "ipc/PipeListenThread.h"
#include "ipc/PipeThreads.h"

namespace guardian {

TPipeServer::TPipeServer() : TPipeEndpoint("Must be in main thread to create a TPipeServer.") {}

TPipeServer::~TPipeServer() {
  assert(IsMainThread());
  // From here on WndMethod does nothing, also while the threads are joined.
  FRegistration.End();
  DoShutdown();
}

void TPipeServer::Free(std::unique_ptr<TPipeServer>& server) {
  if (!server) return;
  // The second blank stays: the line is searched for as it is.
  RequireMainThread("Must be in main thread to destroy a TPipeServer  (Pipe:" + server->PipeName() +
                    ").");
  server.reset();
}

void TPipeServer::SetPipeName(std::string name) {
  assert(IsMainThread());
  RequireValidName(name);
  if (Active()) throw EPipeException("Cannot change property while server is active!");
  FPipeName = std::move(name);
}

void TPipeServer::SetActive(bool active) {
  assert(IsMainThread());
  if (FRemovingListener) return;
  if (!active) return DoShutdown();
  if (Active() || !RemoveListenerThread()) return;
  FListener = CreateThread<TPipeListenThread>(
      FPipeName, FullPipeNameOf(FPipeName),
      [this](TFileDescriptor socket) { AddClient(std::move(socket)); });
}

bool TPipeServer::Write(std::int64_t pipe, std::string_view payload) {
  const TWorkers client = FindClient(pipe);
  if (!client || client->Connection().Ended()) return false;
  client->Connection().Queue().Append(payload);
  return true;
}

std::size_t TPipeServer::ClientCount() const {
  const TKZLockGuard lock(FLock);
  return FClients.size();
}

std::int64_t TPipeServer::Clients(std::size_t index) const {
  const TKZLockGuard lock(FLock);
  return index < FClients.size() ? FClients[index]->Connection().Pipe() : 0;
}

void TPipeServer::LimitWriteQueues(std::size_t maxItems) {
  std::vector<TWorkers> clients;
  {
    const TKZLockGuard lock(FLock);
    clients = FClients;
  }
  std::for_each(clients.rbegin(), clients.rend(),
                [&](const TWorkers& client) { client->Connection().Queue().Limit(maxItems); });
}

void TPipeServer::WndMethod(TKZMessage& message) {
  assert(IsMainThread());
  if (!FRegistration.IsValid("PSrvNVO")) return;
  if (message.Msg == kMsgPipeConnect) {
    if (const TOnPipeConnect handler = OnPipeConnect) handler(*this, message.WParam);
  } else if (message.Msg == kMsgPipeDisconnect) {
    ReportDisconnect(message.WParam);
  } else if (message.Msg == kMsgPipeWorkerEnded) {
    if (const TWorkers client = TakeClient(message.LParam)) RemoveClient(client);
  } else {
    RaiseEvent(message);
  }
}

void TPipeServer::AddClient(TFileDescriptor socket) {
  assert(IsMainThread());
  const TWorkers client = std::make_shared<TPipeWorkers>(
      std::move(socket), TPipeSide::Server, FPipeName, std::string(), FMaxFrameSize.load(), *this);
  {
    const TKZLockGuard lock(FLock);
    FClients.push_back(client);
  }
  try {
    client->Start();
  } catch (...) {
    TakeClient(client->Connection().Serial());
    throw;
  }
}

// Both threads are joined before the disconnect is posted, so that it comes after all that they
// have posted.
void TPipeServer::RemoveClient(const TWorkers& client) {
  try {
    client->EndAndJoin();
    FLeaving.push_back(client);
  } catch (...) {
    WritePipeDiagnostic("Exception in TPipeServer.RemoveClient (1): " + CurrentExceptionMessage());
  }
  try {
    PostMessage(*this, kMsgPipeDisconnect, client->Connection().Pipe(), 0, 0);
  } catch (...) {
    WritePipeDiagnostic("Exception in TPipeServer.RemoveClient (2): " + CurrentExceptionMessage());
  }
}

// Keeps the connection until the event is over, so that its number is not given to another one
// before.
void TPipeServer::ReportDisconnect(std::int64_t pipe) {
  const TWorkers leaving = TakeByPipe(FLeaving, pipe);
  RaiseDisconnect(pipe);
}

TPipeEndpoint::TWorkers TPipeServer::TakeClient(std::int64_t serial) {
  const TKZLockGuard lock(FLock);
  return TakeBySerial(FClients, serial);
}

void TPipeServer::DoShutdown() {
  KZCP::Checkpoint("PipSrc.Shut1");
  if (FListener) FListener->Terminate();
  KZCP::Checkpoint("PipSrc.Shut2");
  if (!RemoveListenerThread()) return;
  KZCP::Checkpoint("PipSrc.Shut3");
  std::vector<TWorkers> clients;
  {
    const TKZLockGuard lock(FLock);
    clients.swap(FClients);
  }
  KZCP::Checkpoint("PipSrc.Shut4");
  for (const TWorkers& client : clients) client->Connection().End();
  KZCP::Checkpoint("PipSrc.Shut5");
  for (const TWorkers& client : clients) RemoveClient(client);
  KZCP::Checkpoint("PipSrc.Shut6");
  KZCP::Checkpoint("PipSrc.ShutX");
}

// The join runs events, which may free the server: its destructor joins the listener too, and this
// returns false, and the server is not touched any more.
bool TPipeServer::RemoveListenerThread() {
  const std::shared_ptr<TKZThread> listener = FListener;
  if (!listener) return true;
  const std::weak_ptr<const void> life = Life();
  FRemovingListener = true;
  listener->Join();
  if (life.expired()) return false;
  FRemovingListener = false;
  FListener = nullptr;
  return true;
}

TPipeEndpoint::TWorkers TPipeServer::FindClient(std::int64_t pipe) const {
  const TKZLockGuard lock(FLock);
  const auto found = std::find_if(FClients.begin(), FClients.end(), [&](const TWorkers& each) {
    return each->Connection().Pipe() == pipe;
  });
  return found != FClients.end() ? *found : nullptr;
}

}  // namespace guardian
