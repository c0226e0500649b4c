#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "common/Mutex.h"
#include "ipc/KZMessages.h"
#include "ipc/PipeConnection.h"
#include "ipc/PipeEndpoint.h"

namespace guardian {

// Reads or writes one connection and posts to its owner; counted in PipeCounters while it runs.
// Owner: TPipeWorkers.
// Threads: as TKZThread.
// Lifetime: connection and owner outlive it.
class TPipeThread : public TKZThread {
 public:
  enum class TRole { Reader, Writer };

  TPipeThread(std::string name, const char* registeredAs, TRole role, TPipeConnection& connection,
              TPipeEndpoint& owner);
  ~TPipeThread() override { Join(); }

 private:
  void Execute() override;
  void Read();
  void Write();
  void OnTerminate() override { FConnection.End(); }

  const TRegistration FRegistration;
  const TRole FRole;
  TPipeConnection& FConnection;
  TPipeEndpoint& FOwner;
  TReservedMessage FEnd;  // So that no lack of memory keeps the end from the owner.
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
// Neither thread ever waits for the main thread, so that joining them runs no event.
// Owner: shared by the client or server and by those who wait for the threads; the last holder
// joins them.
// Threads: any but the two threads themselves.
class TPipeWorkers {
 public:
  TPipeWorkers(TFileDescriptor socket, TPipeSide side, const std::string& pipeName,
               const std::string& watchedPath, std::uint32_t maxFrameSize, TPipeEndpoint& owner);
  ~TPipeWorkers();
  TPipeWorkers(const TPipeWorkers&) = delete;
  TPipeWorkers& operator=(const TPipeWorkers&) = delete;

  // Starts both threads. Throws ESystemError; the connection has then ended, and neither its
  // beginning nor its end is reported.
  void Start() KZ_EXCLUDES(FStartLock);

  // Ends the connection and waits for both threads.
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

}  // namespace guardian
