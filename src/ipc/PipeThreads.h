#pragma once

#include <functional>
#include <memory>
#include <string>

#include "common/Cancellation.h"
#include "common/Mutex.h"
#include "ipc/KZMessages.h"
#include "ipc/KZUnixPipes.h"
#include "ipc/PipeConnection.h"

namespace guardian {

// Reads or writes one connection and posts to its owner; counted in PipeCounters while it runs.
// Owner: TPipeWorkers, which outlives it. Threads: as TKZThread.
class TPipeThread : public TKZThread {
 public:
  enum class TRole { Reader, Writer };

  TPipeThread(std::string name, const char* registeredAs, TRole role, TPipeConnection& connection,
              TPipeEndpoint& owner);
  ~TPipeThread() override { Join(); }

 private:
  void Execute() override;
  void Work();
  void Read();
  void Write();
  void ReportEnd() noexcept;
  void OnTerminate() override { FConnection.End(); }

  const TRegistration FRegistration;
  const TRole FRole;
  TPipeConnection& FConnection;
  TPipeEndpoint& FOwner;
};

class TPipeClientThread final : public TPipeThread {
 public:
  TPipeClientThread(const std::string& pipeName, TRole role, TPipeConnection& connection,
                    TPipeEndpoint& owner);
  ~TPipeClientThread() override { Join(); }
};

class TPipeServerThread final : public TPipeThread {
 public:
  TPipeServerThread(const std::string& pipeName, TRole role, TPipeConnection& connection,
                    TPipeEndpoint& owner);
  ~TPipeServerThread() override { Join(); }
};

// A connection with its reader and its writer.
// Owner: shared by the client or server and by whoever waits for the threads; the last one joins
// them. Threads: Start and the destructor by the owner, never by one of the two threads.
class TPipeWorkers {
 public:
  TPipeWorkers(TFileDescriptor socket, TPipeSide side, const std::string& pipeName,
               const std::string& watchedPath, std::uint32_t maxFrameSize, TPipeEndpoint& owner);
  ~TPipeWorkers();
  TPipeWorkers(const TPipeWorkers&) = delete;
  TPipeWorkers& operator=(const TPipeWorkers&) = delete;

  // Starts both threads. Throws ESystemError; the connection has then ended, and its end is not
  // reported.
  void Start() KZ_EXCLUDES(FStartLock);

  // Ends the connection and waits for both threads. Not in one of them.
  void EndAndJoin() KZ_EXCLUDES(FStartLock);

  [[nodiscard]] TPipeConnection& Connection() const noexcept { return *FConnection; }
  [[nodiscard]] TKZThread& Reader() const noexcept { return *FReader; }
  [[nodiscard]] TKZThread& Writer() const noexcept { return *FWriter; }

 private:
  const std::shared_ptr<TPipeConnection> FConnection;
  TMutex FStartLock;  // Held while the threads are being started.
  std::unique_ptr<TPipeThread> FReader;
  std::unique_ptr<TPipeThread> FWriter;
};

// Listens on a socket file and hands every connection to the server, in the main thread.
// Owner: TPipeServer. Threads: as TKZThread; the destructor joins while synchronise requests run.
class TPipeListenThread final : public TKZThread {
 public:
  using TOnAccepted = std::function<void(TFileDescriptor socket)>;

  TPipeListenThread(std::string pipeName, std::string path, TOnAccepted onAccepted);
  ~TPipeListenThread() override { Join(); }

 private:
  void Execute() override;
  void OnTerminate() override { FStopping.Cancel(); }
  [[nodiscard]] TFileDescriptor Listen() const;
  void AcceptAll(int listener) const;
  void AcceptOne(int listener) const;
  void RemoveSocketFile() const;
  void PauseAfterFailure() const;
  bool WaitForClient(int listener) const;

  const TRegistration FRegistration{this, "PipeListenThread"};
  const std::string FPipeName;
  const std::string FPath;
  const TOnAccepted FOnAccepted;
  TCancellation FStopping;
};

// One try to connect to a socket file, without blocking. Returns an empty descriptor, and errno
// tells why, when nobody takes the connection.
[[nodiscard]] TFileDescriptor TryConnect(const std::string& path);

}  // namespace guardian
