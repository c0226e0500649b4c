#include "ipc/PipeListenThread.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "common/Clock.h"
#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "common/NamedMutex.h"
#include "diagnostics/KZCheckpoints.h"
#include "ipc/PipeSockets.h"

namespace guardian {

TPipeListenThread::TPipeListenThread(std::string pipeName, std::string path, TOnAccepted onAccepted)
    : TKZThread(TThreadCreation::Running, "PipeListenThread for " + pipeName),
      FPipeName(std::move(pipeName)),
      FPath(std::move(path)),
      FOnAccepted(std::move(onAccepted)) {}

void TPipeListenThread::Execute() {
  KZCP::Checkpoint(Name());
  // The mutex only tells others that a server is there. This one goes on when somebody else holds
  // it.
  const TNamedMutex mutex = TNamedMutex::Create(FPath + ".mutex");
  if (!mutex.HasHandle()) {
    WritePipeDiagnostic("create mutex " + FPath + ".mutex: " + SystemErrorText(mutex.Error()));
    return;
  }
  {
    const TFileDescriptor listener = ListenAt(FPath);
    const int error = errno;
    if (!listener) return WritePipeDiagnostic("listen on " + FPath + ": " + SystemErrorText(error));
    AcceptAll(listener.Get());
  }
  RemoveSocketFile();
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
    const int error = errno;
    if (error == EAGAIN || error == EINTR || error == ECONNABORTED) return;
    // No descriptor or no memory is left: the client stays in the queue until there is one.
    WritePipeDiagnostic("accept on " + FPath + ": " + SystemErrorText(error));
    return PauseAfterFailure();
  }
  try {
    KZCP::Checkpoint("PipeListen:fpaccept[" + FPipeName + "]-got#" + std::to_string(client.Get()));
    Synchronize([&] { FOnAccepted(std::move(client)); });
  } catch (...) {
    ReportPipeException("serve a client of " + FPath);
    PauseAfterFailure();
  }
}

void TPipeListenThread::PauseAfterFailure() const {
  constexpr int kPauseMs = 1000;
  KZCP::Checkpoint("PipeListen:Pause");
  pollfd stop{.fd = FStopping.Descriptor(), .events = POLLIN, .revents = 0};
  ::poll(&stop, 1, kPauseMs);
}

// A second server on the same name may have put its own socket there meanwhile. It is removed all
// the same, and that server's clients take this for the end.
void TPipeListenThread::RemoveSocketFile() const {
  constexpr int kTries = 100;
  constexpr std::chrono::milliseconds kPause{200};
  KZCP::Checkpoint("PipeListen:RemoveSocketFile");
  for (int i = 0; i < kTries && ::unlink(FPath.c_str()) != 0; ++i) {
    if (::access(FPath.c_str(), F_OK) != 0) return;
    SystemClock().Sleep(kPause);
  }
}

}  // namespace guardian
