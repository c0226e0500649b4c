#include "ipc/KZUnixPipes.h"

#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "common/Clock.h"
#include "common/MainThread.h"
#include "common/Mutex.h"
#include "common/NeverDestroyed.h"
#include "common/Settings.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exceptions/PipeCounters.h"
#include "ipc/PipeThreads.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

struct TPipeDirectory {
  TMutex Lock;
  std::string Path KZ_GUARDED_BY(Lock);
};

TPipeDirectory& Directory() {
  static TNeverDestroyed<TPipeDirectory> directory;
  return *directory;
}

void RequireMainThread(const std::string& refusal) {
  if (!IsMainThread()) throw KZException(refusal);
}

void RequireValidName(const std::string& name) {
  constexpr std::size_t kTooLong = 64;
  if (name.empty() || name.size() >= kTooLong || name.find('\\') != std::string::npos) {
    throw EPipeException("Invalid pipe name specified!");
  }
}

// Sleeps with synchronise requests running in the main thread; ends early when cancelled.
void SleepBetweenTries(milliseconds duration, const TCancellation* stopping) {
  constexpr milliseconds kStep{50};
  const std::int64_t end = SystemTickCount() + duration.count();
  while (SystemTickCount() < end && (stopping == nullptr || !stopping->IsCancelled())) {
    CheckSynchronize(std::min(kStep, duration));
  }
}

TFileDescriptor ConnectWithin(const std::string& path, int waitMs, const TCancellation* stopping) {
  constexpr int kTryIntervalMs = 500;
  for (int failed = 0;;) {
    TFileDescriptor socket = TryConnect(path);
    if (socket || ++failed > waitMs / kTryIntervalMs) return socket;
    SleepBetweenTries(milliseconds(std::min(waitMs, kTryIntervalMs)), stopping);
    if (stopping != nullptr && stopping->IsCancelled()) return {};
  }
}

using TWorkersList = std::vector<std::shared_ptr<TPipeWorkers>>;

// Null when there is none.
std::shared_ptr<TPipeWorkers> TakeFrom(TWorkersList& list,
                                       const std::function<bool(const TPipeConnection&)>& matches) {
  const auto found = std::find_if(list.begin(), list.end(), [&](const auto& workers) {
    return matches(workers->Connection());
  });
  if (found == list.end()) return nullptr;
  std::shared_ptr<TPipeWorkers> taken = std::move(*found);
  list.erase(found);
  return taken;
}

std::shared_ptr<TPipeWorkers> TakeBySerial(TWorkersList& list, std::int64_t serial) {
  return TakeFrom(list, [&](const TPipeConnection& each) { return each.Serial() == serial; });
}

void TerminateMarked(TKZThread& thread, std::string_view failed) {
  try {
    thread.Terminate();
  } catch (...) {
    KZCP::Checkpoint(failed);
  }
}

std::shared_ptr<TPipeWorkers> FindByPipe(const TWorkersList& list, std::int64_t pipe) {
  for (const auto& workers : list) {
    if (workers->Connection().Pipe() == pipe) return workers;
  }
  return nullptr;
}

}  // namespace

void StartPipes() {
  TPipeDirectory& directory = Directory();
  const TMutexLock lock(directory.Lock);
  directory.Path.clear();
}

void StopPipes() {
  if (const std::string leftovers = ValidObjects().Leftovers(); !leftovers.empty()) {
    WritePipeDiagnostic(leftovers);
  }
  if (PipeCounters().ClientPipes.load() + PipeCounters().ServerPipes.load() > 0) {
    WritePipeDiagnostic("Not all pipes closed at end of process.");
  }
  TPipeDirectory& directory = Directory();
  const TMutexLock lock(directory.Lock);
  directory.Path.clear();
}

void SetPipeDirectory(std::string path) {
  TPipeDirectory& directory = Directory();
  const TMutexLock lock(directory.Lock);
  directory.Path = std::move(path);
}

std::string PipeDirectory() {
  TPipeDirectory& directory = Directory();
  const TMutexLock lock(directory.Lock);
  if (directory.Path.empty()) directory.Path = Settings().MutexDirectory.Copy();
  if (directory.Path.empty()) directory.Path = "/tmp";
  return directory.Path;
}

std::string FullPipeNameOf(const std::string& pipeName) {
  std::string path = PipeDirectory() + "/" + pipeName;
  if (path.size() + 1 > sizeof(sockaddr_un::sun_path)) {
    throw KZException("Length(FullPipeName)+1>sizeof(FSockAddr.sun_path)");
  }
  return path;
}

TMadeInMainThread::TMadeInMainThread(const char* refusal) { RequireMainThread(refusal); }

void TPipeEndpoint::RaiseEvent(const TKZMessage& message) {
  switch (message.Msg) {
    case kMsgPipeErrorListener:
      return RaiseError(message, TPipeContext::pcListener);
    case kMsgPipeErrorWorker:
      return RaiseError(message, TPipeContext::pcWorker);
    case kMsgPipeSent:
      // LParam, which is 0, and not the byte count: see TOnPipeSent.
      if (const TOnPipeSent handler = OnPipeSent.Handler()) {
        handler(*this, message.WParam, static_cast<std::uint32_t>(message.LParam));
      }
      return;
    case kMsgPipeMessage:
      return RaiseMessage(message);
    default:
      return;
  }
}

// Each calls a copy of the slot, since the handler may free the object and the slot with it.

void TPipeEndpoint::RaiseError(const TKZMessage& message, TPipeContext context) {
  if (const TOnPipeError handler = OnPipeError) {
    handler(*this, message.WParam, context, message.LParam);
  }
}

void TPipeEndpoint::RaiseDisconnect(std::int64_t pipe) {
  if (const TOnPipeDisconnect handler = OnPipeDisconnect) handler(*this, pipe);
}

void TPipeEndpoint::RaiseMessage(const TKZMessage& message) {
  const std::string_view payload = MessagePayload(message);
  if (payload.empty()) return;
  if (const TOnPipeMessage handler = OnPipeMessage) handler(*this, message.WParam, payload);
}

TPipeClient::TPipeClient(const TCancellation* stopping)
    : TPipeEndpoint("Must be in main thread to create a TPipeClient."), FStopping(stopping) {}

TPipeClient::~TPipeClient() {
  // From here on WndMethod does nothing, also while the threads are joined.
  FRegistration.End();
  TWorkersList workers;
  {
    const TKZLockGuard lock(FLock);
    workers = std::move(FEnding);
    if (FCurrent) workers.push_back(std::move(FCurrent));
  }
  // Joined here and not by the last holder, which may be further down the stack: the threads must
  // not post to an owner that is gone.
  for (const TWorkers& each : workers) each->EndAndJoin();
}

void TPipeClient::Free(std::unique_ptr<TPipeClient>& client) {
  if (!client) return;
  RequireMainThread("Must be in main thread to destroy a TPipeClient (Pipe:" + client->PipeName() +
                    ").");
  client.reset();
}

void TPipeClient::SetPipeName(std::string name) {
  RequireValidName(name);
  const TKZLockGuard lock(FLock);
  if (FCurrent) throw EPipeException("Cannot change property when client is connected!");
  FPipeName = std::move(name);
}

std::string TPipeClient::PipeName() const {
  const TKZLockGuard lock(FLock);
  return FPipeName;
}

bool TPipeClient::Connect(int waitMs) {
  if (const TWorkers current = Current(); current && !current->Connection().Ended()) return true;
  const std::string path = FullPipeNameOf(PipeName());
  if (::access(path.c_str(), F_OK) != 0) return false;
  TFileDescriptor socket = ConnectWithin(path, waitMs, FStopping);
  return socket && StartWorkers(std::move(socket), path);
}

bool TPipeClient::StartWorkers(TFileDescriptor socket, const std::string& path) {
  const TWorkers workers = std::make_shared<TPipeWorkers>(
      std::move(socket), TPipeSide::Client, PipeName(), path, FMaxFrameSize.load(), *this);
  {
    const TKZLockGuard lock(FLock);
    // One that has ended, and is not reported yet.
    if (FCurrent) FEnding.push_back(std::move(FCurrent));
    FCurrent = workers;
    FPipe.store(workers->Connection().Pipe());
    FConnected.store(true);
  }
  try {
    workers->Start();
    return true;
  } catch (const KZException& error) {
    WritePipeDiagnostic(error.Message());
  }
  // Unless the reader could report its end, and the main thread has taken it.
  if (Forget(workers->Connection().Serial())) workers->EndAndJoin();
  return false;
}

void TPipeClient::Disconnect(TWait wait) {
  constexpr milliseconds kPoll{100};
  constexpr int kWriterPolls = 11;
  KZCP::Checkpoint("PipCl.Disc");
  TWorkers workers;
  {
    const TKZLockGuard lock(FLock);
    if (!FCurrent) return;
    workers = FCurrent;
    FEnding.push_back(std::move(FCurrent));
    FPipe.store(kNoPipe);
    FConnected.store(false);
  }
  KZCP::Checkpoint("PipCl.Disc2");
  workers->Connection().End();
  KZCP::Checkpoint("PipCl.Disc3");
  TerminateMarked(workers->Reader(), "PipCl.Disc4EX");
  KZCP::Checkpoint("PipCl.Disc4");
  TerminateMarked(workers->Writer(), "PipCl.Disc5EX");
  KZCP::Checkpoint("PipCl.Disc5");
  if (wait == TWait::Yes) {
    while (!workers->Reader().WaitFinished(kPoll)) KZCP::Checkpoint("PipCl.Disc6");
    for (int i = 0; i < kWriterPolls && !workers->Writer().WaitFinished(kPoll); ++i) {
      KZCP::Checkpoint("PipCl.Disc7");
    }
  }
  KZCP::Checkpoint("PipCl.Disc8");
}

bool TPipeClient::Write(std::string_view payload) {
  const TWorkers workers = Current();
  if (!workers || workers->Connection().Ended()) return false;
  workers->Connection().Queue().Append(payload);
  return true;
}

void TPipeClient::WaitUntilWriteQueueEmpty(int seconds) {
  constexpr milliseconds kPoll{100};
  for (std::int64_t i = 0; i < std::int64_t{seconds} * 10; ++i) {
    if (!ValidObjects().IsValid(this, "TPipeClient.WaitUntilWriteQueueEmpty")) return;
    const TWorkers workers = Current();
    if (!workers || workers->Connection().Queue().Count() == 0) return;
    SleepSynchronizing(kPoll);
  }
}

std::optional<TPipeWrite> TPipeClient::Dequeue() {
  const TWorkers workers = Current();
  return workers ? workers->Connection().Queue().Dequeue() : std::nullopt;
}

void TPipeClient::WndMethod(TKZMessage& message) {
  if (!FRegistration.IsValid("PCltNVO")) return;
  if (message.Msg == kMsgPipeDisconnect) {
    RaiseDisconnect(message.WParam);
  } else if (message.Msg == kMsgPipeWorkerEnded) {
    RemoveWorkerThread(message.LParam);
  } else {
    RaiseEvent(message);
  }
}

// An end that Disconnect brought about is reported like any other, but it does not touch the
// connection that may have been made since. The pipe is forgotten after the event, which still
// sees it.
void TPipeClient::RemoveWorkerThread(std::int64_t serial) {
  const TWorkers ended = Take(serial);
  if (!ended) return;
  ended->EndAndJoin();
  try {
    RaiseDisconnect(ended->Connection().Pipe());
  } catch (...) {
    if (ValidObjects().IsValid(this, "TPipeClient.RemoveWorkerThread")) ForgetPipe();
    throw;
  }
  if (ValidObjects().IsValid(this, "TPipeClient.RemoveWorkerThread")) ForgetPipe();
}

// Unless there is a connection again.
void TPipeClient::ForgetPipe() {
  const TKZLockGuard lock(FLock);
  if (FCurrent) return;
  FPipe.store(kNoPipe);
  FConnected.store(false);
}

bool TPipeClient::Forget(std::int64_t serial) {
  const TWorkers taken = Take(serial);
  ForgetPipe();
  return taken != nullptr;
}

// Out of the client, wherever it stands; null when it is gone already.
TPipeEndpoint::TWorkers TPipeClient::Take(std::int64_t serial) {
  const TKZLockGuard lock(FLock);
  const bool isCurrent = FCurrent && FCurrent->Connection().Serial() == serial;
  return isCurrent ? std::move(FCurrent) : TakeBySerial(FEnding, serial);
}

TPipeEndpoint::TWorkers TPipeClient::Current() const {
  const TKZLockGuard lock(FLock);
  return FCurrent;
}

TPipeServer::TPipeServer() : TPipeEndpoint("Must be in main thread to create a TPipeServer.") {}

TPipeServer::~TPipeServer() {
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
  RequireValidName(name);
  if (Active()) throw EPipeException("Cannot change property while server is active!");
  FPipeName = std::move(name);
}

void TPipeServer::SetActive(bool active) {
  if (active == Active()) return;
  if (!active) return DoShutdown();
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
  TWorkersList clients;
  {
    const TKZLockGuard lock(FLock);
    clients = FClients;
  }
  std::for_each(clients.rbegin(), clients.rend(),
                [&](const TWorkers& client) { client->Connection().Queue().Limit(maxItems); });
}

void TPipeServer::WndMethod(TKZMessage& message) {
  if (!FRegistration.IsValid("PSrvNVO")) return;
  if (message.Msg == kMsgPipeConnect) {
    if (const TOnPipeConnect handler = OnPipeConnect) handler(*this, message.WParam);
  } else if (message.Msg == kMsgPipeDisconnect) {
    // Kept until the event is over, so that the number is not given to another one before.
    const TWorkers leaving = TakeLeaving(message.WParam);
    RaiseDisconnect(message.WParam);
  } else if (message.Msg == kMsgPipeWorkerEnded) {
    if (const TWorkers client = TakeClient(message.LParam)) RemoveClient(client);
  } else {
    RaiseEvent(message);
  }
}

void TPipeServer::AddClient(TFileDescriptor socket) {
  const TWorkers client = std::make_shared<TPipeWorkers>(
      std::move(socket), TPipeSide::Server, FPipeName, std::string(), FMaxFrameSize.load(), *this);
  try {
    client->Start();
  } catch (...) {
    client->EndAndJoin();
    throw;
  }
  const TKZLockGuard lock(FLock);
  FClients.push_back(client);
}

// Both threads are joined before the disconnect is posted, so that it comes behind all that they
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

TPipeEndpoint::TWorkers TPipeServer::TakeLeaving(std::int64_t pipe) {
  return TakeFrom(FLeaving, [&](const TPipeConnection& each) { return each.Pipe() == pipe; });
}

TPipeEndpoint::TWorkers TPipeServer::TakeClient(std::int64_t serial) {
  const TKZLockGuard lock(FLock);
  return TakeBySerial(FClients, serial);
}

void TPipeServer::DoShutdown() {
  if (FShuttingDown) return;
  FShuttingDown = true;
  KZCP::Checkpoint("PipSrc.Shut1");
  if (FListener) FListener->Terminate();
  KZCP::Checkpoint("PipSrc.Shut2");
  // The joins here and below run synchronise requests, and with them events.
  FListener.reset();
  KZCP::Checkpoint("PipSrc.Shut3");
  TWorkersList clients;
  {
    const TKZLockGuard lock(FLock);
    clients.swap(FClients);
  }
  KZCP::Checkpoint("PipSrc.Shut4");
  for (const TWorkers& client : clients) client->Connection().End();
  KZCP::Checkpoint("PipSrc.Shut5");
  for (const TWorkers& client : clients) RemoveClient(client);
  KZCP::Checkpoint("PipSrc.Shut6");
  FShuttingDown = false;
  KZCP::Checkpoint("PipSrc.ShutX");
}

TPipeEndpoint::TWorkers TPipeServer::FindClient(std::int64_t pipe) const {
  const TKZLockGuard lock(FLock);
  return FindByPipe(FClients, pipe);
}

}  // namespace guardian
