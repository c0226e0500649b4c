#include "ipc/PipeThreads.h"

#include <atomic>
#include <utility>

#include "common/AtEnd.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exceptions/PipeCounters.h"
#include "ipc/PipeObjects.h"

namespace guardian {
namespace {

std::string ClientThreadName(const std::string& pipeName) {
  static std::atomic<int> number = 0;
  return "PipeClientThread #" + std::to_string(++number) + " for ./" + pipeName;
}

std::atomic<int>& LiveThreads(TPipeSide side) {
  return side == TPipeSide::Client ? PipeCounters().ClientPipeThreads
                                   : PipeCounters().ServerPipeThreads;
}

}  // namespace

TPipeThread::TPipeThread(std::string name, const char* registeredAs, TRole role,
                         TPipeConnection& connection, TPipeEndpoint& owner)
    : TKZThread(TThreadCreation::Suspended, std::move(name)),
      FRegistration(this, registeredAs),
      FRole(role),
      FConnection(connection),
      FOwner(owner) {}

// The reader posts the end after the last message, so that the owner hears of it after all that
// came before. The numbers 1124 and 1125 are never posted: a failure shows as an end and nothing
// else.
void TPipeThread::Execute() {
  KZCP::Checkpoint(Name());
  std::atomic<int>& live = LiveThreads(FConnection.Side());
  ++live;
  const TAtEnd leave([&] {
    FConnection.End();
    if (FRole == TRole::Reader) {
      FEnd.Post(FOwner, kMsgPipeWorkerEnded, FConnection.Pipe(), FConnection.Serial());
    }
    --live;
  });
  try {
    FRole == TRole::Reader ? Read() : Write();
  } catch (...) {
    ReportPipeException(Name());
  }
}

void TPipeThread::Read() {
  if (FConnection.Side() == TPipeSide::Server) {
    PostMessage(FOwner, kMsgPipeConnect, FConnection.Pipe(), 0, 0);
  }
  FConnection.ReadAll([this](std::string_view payload) {
    PostMessage(FOwner, kMsgPipeMessage, FConnection.Pipe(),
                MakePayload(FConnection.Payloads(), payload));
  });
}

void TPipeThread::Write() {
  LetLooksBeLate();  // The reader's look is the socket's own, which this does not concern.
  FConnection.WriteAll([this](std::size_t bytes) {
    if (!FOwner.OnPipeSent.IsSet()) return;
    PostMessage(FOwner, kMsgPipeSent, FConnection.Pipe(), 0, static_cast<std::int64_t>(bytes));
  });
}

TPipeClientThread::TPipeClientThread(const std::string& pipeName, TRole role,
                                     TPipeConnection& connection, TPipeEndpoint& owner)
    : TPipeThread(ClientThreadName(pipeName), "PipeClientThread", role, connection, owner) {}

TPipeServerThread::TPipeServerThread(const std::string& pipeName, TRole role,
                                     TPipeConnection& connection, TPipeEndpoint& owner)
    : TPipeThread("PipeServerThread for " + pipeName, "PipeServerThread", role, connection, owner) {
}

TPipeWorkers::TPipeWorkers(TFileDescriptor socket, TPipeSide side, const std::string& pipeName,
                           const std::string& watchedPath, std::uint32_t maxFrameSize,
                           TPipeEndpoint& owner)
    : FConnection(
          std::make_shared<TPipeConnection>(std::move(socket), side, watchedPath, maxFrameSize)) {
  const auto makeThread = [&](TPipeThread::TRole role) -> std::unique_ptr<TPipeThread> {
    if (side == TPipeSide::Client) {
      return std::make_unique<TPipeClientThread>(pipeName, role, *FConnection, owner);
    }
    return std::make_unique<TPipeServerThread>(pipeName, role, *FConnection, owner);
  };
  FReader = makeThread(TPipeThread::TRole::Reader);
  FWriter = makeThread(TPipeThread::TRole::Writer);
}

TPipeWorkers::~TPipeWorkers() { EndAndJoin(); }

void TPipeWorkers::Start() {
  const TMutexLock lock(FStartLock);
  try {
    // The reader last: it reports the beginning and the end.
    FWriter->Start();
    FReader->Start();
  } catch (...) {
    FConnection->End();
    throw;
  }
}

void TPipeWorkers::EndAndJoin() {
  FConnection->End();
  {
    // A connection may end while another thread is still starting its threads.
    const TMutexLock lock(FStartLock);
  }
  FReader->JoinWithoutRequests();
  FWriter->JoinWithoutRequests();
}

}  // namespace guardian
