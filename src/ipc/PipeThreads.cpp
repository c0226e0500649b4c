#include "ipc/PipeThreads.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <utility>

#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "common/NamedMutex.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exception_report.h"
#include "diagnostics/exceptions/PipeCounters.h"

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

// Counts a live thread for as long as it lives.
class TThreadCount {
 public:
  explicit TThreadCount(TPipeSide side) : FCounter(LiveThreads(side)) { ++FCounter; }
  ~TThreadCount() { --FCounter; }
  TThreadCount(const TThreadCount&) = delete;
  TThreadCount& operator=(const TThreadCount&) = delete;

 private:
  std::atomic<int>& FCounter;
};

sockaddr_un AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(static_cast<char*>(address.sun_path), path.data(), path.size());
  return address;
}

// The family and the path, without a terminating zero.
socklen_t AddressLengthOf(const std::string& path) {
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
}

const sockaddr* Generic(const sockaddr_un& address) {
  return reinterpret_cast<const sockaddr*>(&address);
}

TFileDescriptor MakeSocket(int flags) {
  return TFileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
}

// In a catch block: the exception that has ended the work.
void ReportPipeException(const std::string& where) {
  WritePipeDiagnostic(where + ": " + CurrentExceptionMessage());
  HandleException(std::current_exception(), TLogToFiles::Yes, where);
}

}  // namespace

TPipeThread::TPipeThread(std::string name, const char* registeredAs, TRole role,
                         TPipeConnection& connection, TPipeEndpoint& owner)
    : TKZThread(TThreadCreation::Suspended, std::move(name)),
      FRegistration(this, registeredAs),
      FRole(role),
      FConnection(connection),
      FOwner(owner) {}

void TPipeThread::Execute() {
  const TThreadCount count(FConnection.Side());
  try {
    Work();
  } catch (...) {
    ReportPipeException(Name());
  }
  FConnection.End();
  if (FRole == TRole::Reader) ReportEnd();
}

void TPipeThread::Work() {
  if (FRole == TRole::Reader) {
    Read();
  } else {
    Write();
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
  FConnection.WriteAll([this](std::size_t bytes) {
    if (!FOwner.OnPipeSent.IsSet()) return;
    PostMessage(FOwner, kMsgPipeSent, FConnection.Pipe(), 0, static_cast<std::int64_t>(bytes));
  });
}

// Behind the last message, so that the owner hears of the end after all that came before it. The
// numbers 1124 and 1125 are never posted: a failure shows as an end and nothing else.
void TPipeThread::ReportEnd() noexcept try {
  PostMessage(FOwner, kMsgPipeWorkerEnded, FConnection.Pipe(), FConnection.Serial(), 0);
} catch (...) {
  WritePipeDiagnostic(Name() + " cannot report its end: " + CurrentExceptionMessage());
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

TPipeWorkers::~TPipeWorkers() { FConnection->End(); }

void TPipeWorkers::Start() {
  const TMutexLock lock(FStartLock);
  try {
    FReader->Start();
    FWriter->Start();
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
  FReader->Join();
  FWriter->Join();
}

TPipeListenThread::TPipeListenThread(std::string pipeName, std::string path, TOnAccepted onAccepted)
    : TKZThread(TThreadCreation::Running, "PipeListenThread for " + pipeName),
      FPipeName(std::move(pipeName)),
      FPath(std::move(path)),
      FOnAccepted(std::move(onAccepted)) {}

void TPipeListenThread::Execute() {
  // Another server on the same name is no reason to stop: the mutex only tells that one is there.
  const TNamedMutex mutex = TNamedMutex::Create(FPath + ".mutex");
  if (!mutex.HasHandle()) {
    WritePipeDiagnostic("create mutex " + FPath + ".mutex: " + SystemErrorText(mutex.Error()));
    return;
  }
  {
    const TFileDescriptor listener = Listen();
    if (!listener) return;
    AcceptAll(listener.Get());
  }
  RemoveSocketFile();
}

TFileDescriptor TPipeListenThread::Listen() const {
  constexpr int kBacklog = 1024;
  constexpr mode_t kEveryUser = 0777;
  TFileDescriptor listener = MakeSocket(SOCK_NONBLOCK);
  ::unlink(FPath.c_str());
  const sockaddr_un address = AddressOf(FPath);
  const bool bound =
      listener && ::bind(listener.Get(), Generic(address), AddressLengthOf(FPath)) == 0;
  const bool listens =
      bound && ::chmod(FPath.c_str(), kEveryUser) == 0 && ::listen(listener.Get(), kBacklog) == 0;
  if (listens) return listener;
  WritePipeDiagnostic("listen on " + FPath + ": " + SystemErrorText(errno));
  if (bound) ::unlink(FPath.c_str());
  return {};
}

void TPipeListenThread::AcceptAll(int listener) const {
  const std::string waiting = "PipeListen:fpaccept[" + FPipeName + "]";
  while (!Terminated()) {
    KZCP::Checkpoint(waiting);
    if (WaitForClient(listener)) AcceptOne(listener);
  }
}

bool TPipeListenThread::WaitForClient(int listener) const {
  pollfd waits[2] = {{.fd = listener, .events = POLLIN, .revents = 0},
                     {.fd = FStopping.Descriptor(), .events = POLLIN, .revents = 0}};
  return ::poll(waits, 2, -1) > 0 && waits[1].revents == 0;
}

void TPipeListenThread::AcceptOne(int listener) const {
  TFileDescriptor client(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
  if (!client) {
    if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
    // No descriptor or no memory left: the client stays in the queue until there is.
    WritePipeDiagnostic("accept on " + FPath + ": " + SystemErrorText(errno));
    return PauseAfterFailure();
  }
  KZCP::Checkpoint("PipeListen:fpaccept[" + FPipeName + "]-got#" + std::to_string(client.Get()));
  try {
    Synchronize([&] { FOnAccepted(std::move(client)); });
  } catch (...) {
    ReportPipeException("serve a client of " + FPath);
    PauseAfterFailure();
  }
}

void TPipeListenThread::PauseAfterFailure() const {
  constexpr int kPauseMs = 1000;
  pollfd stop{.fd = FStopping.Descriptor(), .events = POLLIN, .revents = 0};
  ::poll(&stop, 1, kPauseMs);
}

// A second server on the same name may have put its own socket there meanwhile; it is removed all
// the same, and that server's clients take it for the end.
void TPipeListenThread::RemoveSocketFile() const {
  constexpr int kTries = 100;
  constexpr std::chrono::milliseconds kPause{200};
  for (int i = 0; i < kTries && ::unlink(FPath.c_str()) != 0; ++i) {
    if (::access(FPath.c_str(), F_OK) != 0) return;
    SystemClock().Sleep(kPause);
  }
}

TFileDescriptor TryConnect(const std::string& path) {
  // A server that does not accept and whose queue is full would block a plain connect for ever.
  TFileDescriptor socket = MakeSocket(SOCK_NONBLOCK);
  const sockaddr_un address = AddressOf(path);
  // A socket that could not be made is not told apart here: the call below fails for it.
  if (::connect(socket.Get(), Generic(address), AddressLengthOf(path)) != 0) return {};
  // From here on the writer's calls shall block until all is taken.
  const int flags = ::fcntl(socket.Get(), F_GETFL);
  if (::fcntl(socket.Get(), F_SETFL, flags & ~O_NONBLOCK) != 0) return {};
  return socket;
}

}  // namespace guardian
