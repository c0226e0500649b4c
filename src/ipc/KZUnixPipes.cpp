#include "ipc/KZUnixPipes.h"

#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "common/Clock.h"
#include "common/MainThread.h"
#include "common/Mutex.h"
#include "common/Settings.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/PipeCounters.h"
#include "ipc/PipeThreads.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

struct TPipeDirectory {
  TMutex Lock;
  std::string Path KZ_GUARDED_BY(Lock);
};

TPipeDirectory& Directory() {
  static auto* directory = new TPipeDirectory;
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

std::shared_ptr<TPipeWorkers> FindByPipe(const TWorkersList& list, std::int64_t pipe) {
  for (const auto& workers : list) {
    if (workers->Connection().Pipe() == pipe) return workers;
  }
  return nullptr;
}

// Runs the action at the end of the scope, also when an exception passes.
class TAtEnd {
 public:
  explicit TAtEnd(std::function<void()> action) : FAction(std::move(action)) {}
  ~TAtEnd() { FAction(); }
  TAtEnd(const TAtEnd&) = delete;
  TAtEnd& operator=(const TAtEnd&) = delete;

 private:
  const std::function<void()> FAction;
};

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
      if (OnPipeSent) {
        OnPipeSent(*this, message.WParam, static_cast<std::uint32_t>(message.LParam));
      }
      return;
    case kMsgPipeMessage:
      return RaiseMessage(message);
    default:
      return;
  }
}

void TPipeEndpoint::RaiseError(const TKZMessage& message, TPipeContext context) {
  if (OnPipeError) OnPipeError(*this, message.WParam, context, message.LParam);
}

void TPipeEndpoint::RaiseDisconnect(std::int64_t pipe) {
  if (OnPipeDisconnect) OnPipeDisconnect(*this, pipe);
}

void TPipeEndpoint::RaiseMessage(const TKZMessage& message) {
  const std::string_view payload = MessagePayload(message);
  const TWorkers workers = FindWorkers(message.WParam);
  const TAtEnd delivered([&] {
    if (workers) workers->Connection().RemoveUndelivered(payload.size());
  });
  if (!payload.empty() && OnPipeMessage) OnPipeMessage(*this, message.WParam, payload);
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
  for (const TWorkers& each : workers) each->Connection().End();
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
  if (Connected()) return true;
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
  const TKZLockGuard lock(FLock);
  FCurrent.reset();
  FPipe.store(kNoPipe);
  FConnected.store(false);
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
  workers->Reader().Terminate();
  KZCP::Checkpoint("PipCl.Disc4");
  workers->Writer().Terminate();
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
  if (!workers) return false;
  workers->Connection().Queue().Append({BuildFrame(payload)});
  return true;
}

void TPipeClient::WaitUntilWriteQueueEmpty(int seconds) {
  constexpr milliseconds kPoll{100};
  for (int i = 0; i < seconds * 10; ++i) {
    const TWorkers workers = Current();
    if (!workers || workers->Connection().Queue().Count() == 0) return;
    CheckSynchronize(kPoll);
  }
}

std::optional<TPipeWrite> TPipeClient::Dequeue() {
  const TWorkers workers = Current();
  return workers ? workers->Connection().Queue().Dequeue() : std::nullopt;
}

void TPipeClient::WndMethod(TKZMessage& message) {
  if (!ValidObjects().IsValid(this, "PCltNVO")) return;
  if (message.Msg == kMsgPipeDisconnect) {
    RaiseDisconnect(message.WParam);
  } else if (message.Msg == kMsgPipeWorkerEnded) {
    RemoveWorkerThread(message.LParam);
  } else {
    RaiseEvent(message);
  }
}

// An end that Disconnect brought about is reported like any other, but it does not touch the
// connection that may have been made since.
void TPipeClient::RemoveWorkerThread(std::int64_t serial) {
  TWorkers ended;
  {
    const TKZLockGuard lock(FLock);
    if (FCurrent && FCurrent->Connection().Serial() == serial) ended = std::move(FCurrent);
  }
  if (ended) {
    const TAtEnd forget([this] { ForgetPipe(); });
    RaiseDisconnect(ended->Connection().Pipe());
    return;
  }
  {
    const TKZLockGuard lock(FLock);
    ended = TakeBySerial(FEnding, serial);
  }
  if (ended) RaiseDisconnect(ended->Connection().Pipe());
}

void TPipeClient::ForgetPipe() {
  const TKZLockGuard lock(FLock);
  FPipe.store(kNoPipe);
  FConnected.store(false);
}

TPipeEndpoint::TWorkers TPipeClient::FindWorkers(std::int64_t pipe) {
  const TKZLockGuard lock(FLock);
  if (FCurrent && FCurrent->Connection().Pipe() == pipe) return FCurrent;
  return FindByPipe(FEnding, pipe);
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
  const TWorkers client = FindWorkers(pipe);
  if (!client) return false;
  client->Connection().Queue().Append({BuildFrame(payload)});
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
  if (!ValidObjects().IsValid(this, "PSrvNVO")) return;
  if (message.Msg == kMsgPipeConnect) {
    if (OnPipeConnect) OnPipeConnect(*this, message.WParam);
  } else if (message.Msg == kMsgPipeDisconnect) {
    const TAtEnd forget([&] { ForgetLeaving(message.WParam); });
    RaiseDisconnect(message.WParam);
  } else if (message.Msg == kMsgPipeWorkerEnded) {
    RemoveWorkerThread(message.LParam);
  } else {
    RaiseEvent(message);
  }
}

void TPipeServer::AddClient(TFileDescriptor socket) {
  const TWorkers client = std::make_shared<TPipeWorkers>(
      std::move(socket), TPipeSide::Server, FPipeName, std::string(), FMaxFrameSize.load(), *this);
  client->Start();
  const TKZLockGuard lock(FLock);
  FClients.push_back(client);
}

void TPipeServer::RemoveWorkerThread(std::int64_t serial) {
  TWorkers client;
  {
    const TKZLockGuard lock(FLock);
    client = TakeBySerial(FClients, serial);
  }
  if (client) RemoveClient(std::move(client));
}

// The client stays in FLeaving until its disconnect is raised, so that its number is not given to
// another one before.
void TPipeServer::RemoveClient(TWorkers client) {
  const std::int64_t pipe = client->Connection().Pipe();
  try {
    client->Connection().End();
    FLeaving.push_back(std::move(client));
  } catch (...) {
    WritePipeDiagnostic("Exception in TPipeServer.RemoveClient (1): " + CurrentExceptionMessage());
  }
  try {
    PostMessage(*this, kMsgPipeDisconnect, pipe, 0, 0);
  } catch (...) {
    WritePipeDiagnostic("Exception in TPipeServer.RemoveClient (2): " + CurrentExceptionMessage());
  }
}

void TPipeServer::ForgetLeaving(std::int64_t pipe) {
  const TWorkers client =
      TakeFrom(FLeaving, [&](const TPipeConnection& each) { return each.Pipe() == pipe; });
}

void TPipeServer::DoShutdown() {
  KZCP::Checkpoint("PipSrc.Shut1");
  if (FListener) FListener->Terminate();
  KZCP::Checkpoint("PipSrc.Shut2");
  FListener.reset();
  KZCP::Checkpoint("PipSrc.Shut3");
  TWorkersList clients;
  {
    const TKZLockGuard lock(FLock);
    clients = std::move(FClients);
    FClients.clear();
  }
  KZCP::Checkpoint("PipSrc.Shut4");
  for (TWorkers& client : clients) RemoveClient(std::move(client));
  KZCP::Checkpoint("PipSrc.Shut5");
  // A copy: the joins run synchronise requests, which may forget a client meanwhile.
  const TWorkersList leaving = FLeaving;
  for (const TWorkers& client : leaving) {
    client->Reader().Join();
    client->Writer().Join();
  }
  KZCP::Checkpoint("PipSrc.Shut6");
  KZCP::Checkpoint("PipSrc.ShutX");
}

TPipeEndpoint::TWorkers TPipeServer::FindWorkers(std::int64_t pipe) {
  const TKZLockGuard lock(FLock);
  return FindByPipe(FClients, pipe);
}

}  // namespace guardian
