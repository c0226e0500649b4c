#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "common/NamedMutex.h"
#include "ipc/KZCustomApplication.h"
#include "ipc/KZUnixPipes.h"
#include "simulator/Faults.h"
#include "simulator/Home.h"

namespace guardian {

// Starts the message and pipe units and stops them in the opposite order. Makes the calling thread
// the main one.
class TMessaging {
 public:
  TMessaging();
  ~TMessaging();
  TMessaging(const TMessaging&) = delete;
  TMessaging& operator=(const TMessaging&) = delete;

 private:
  std::optional<TKZCustomApplication> FApplication;
};

// The scheduler as the Guardian sees it: the mutex, the pipe, the pulse, and the answers to
// commands.
// Owner: the daemon.
// Threads: the daemon's main thread, which runs the synchronise queue.
class TStandInScheduler {
 public:
  // Sets the pipe up; Follow takes the mutex and serves the pipe. A failure becomes a line in the
  // log.
  explicit TStandInScheduler(THome home);

  // Takes or frees the mutex and opens or closes the pipe as the faults say, and sends a status
  // record every second. Call it several times a second.
  void Follow(const TFaults& faults);

 private:
  void FollowMutex(bool held);
  void FollowPipe(bool served);
  void SendStatusRecords(const TFaults& faults);
  void SendToAll(std::string_view payload);
  void HandleCommands(std::int64_t pipe, std::string_view payload);

  const THome FHome;
  const TMessaging FMessaging;
  TNamedMutex FMutex;
  TPipeServer FServer;
  std::int64_t FPulse = 0;
  std::int64_t FNextRecordTick = 0;
};

}  // namespace guardian
