#pragma once

#include <functional>
#include <string>

#include "common/Cancellation.h"
#include "common/FileDescriptor.h"
#include "ipc/KZMessages.h"
#include "ipc/PipeObjects.h"

namespace guardian {

// Listens on a socket file and hands every connection to the server, in the main thread. Says in
// the error log why it cannot listen or accept; a listener that cannot listen ends. Owner:
// TPipeServer. Threads: as TKZThread; the destructor joins while synchronise requests run.
class TPipeListenThread final : public TKZThread {
 public:
  using TOnAccepted = std::function<void(TFileDescriptor socket)>;

  TPipeListenThread(std::string pipeName, std::string path, TOnAccepted onAccepted);
  ~TPipeListenThread() override { Join(); }

 private:
  void Execute() override;
  void OnTerminate() override { FStopping.Cancel(); }
  void AcceptAll(int listener) const;
  bool WaitForClient(int listener) const;
  void AcceptOne(int listener) const;
  void PauseAfterFailure() const;
  void RemoveSocketFile() const;

  const TRegistration FRegistration{this, "PipeListenThread"};
  const std::string FPipeName;
  const std::string FPath;
  const TOnAccepted FOnAccepted;
  TCancellation FStopping;
};

}  // namespace guardian
