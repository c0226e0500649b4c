#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "common/Clock.h"
#include "common/Mutex.h"

namespace guardian {

enum class THttpShutdown {
  Orderly,  // The peer still receives what has been written.
  Reset,    // The kernel drops what has been written and not received.
};

// One open connection as THttpConnections sees it.
// Owner: its own chain of operations. A held reference keeps the socket from being closed.
// Threads: any thread may call ShutDown.
class THttpConnection {
 public:
  THttpConnection() = default;
  virtual ~THttpConnection() = default;
  THttpConnection(const THttpConnection&) = delete;
  THttpConnection& operator=(const THttpConnection&) = delete;

  // Ends the traffic in both directions. This wakes up the connection's chain, which then frees the
  // connection. Never blocks; can be called again.
  virtual void ShutDown(THttpShutdown how) noexcept = 0;
};

// The open connections: which of them have passed their deadline, and which one to close when there
// are too many.
//
// A connection is busy while it is being answered. It is idle while it waits for a request, while
// it receives one, and while it waits for the client to close. An idle connection has a deadline.
// When the limit is reached, the connection that has been idle longest gives way to a new one.
// Owner: the active server.
// Threads: any thread may call anything, but only a connection uses its own ticket. No function of
// a connection is called while the lock is held.
// Lifetime: outlives its connections.
class THttpConnections {
  enum class TPhase { Idle, Busy, SentAway };

  struct TEntry {
    std::weak_ptr<THttpConnection> Connection;
    TPhase Phase;
    std::int64_t DeadlineTick;
  };

  using TReferences = std::vector<std::shared_ptr<THttpConnection>>;

 public:
  using TTicket = std::list<TEntry>::iterator;

  THttpConnections() = default;
  THttpConnections(const THttpConnections&) = delete;
  THttpConnections& operator=(const THttpConnections&) = delete;

  // Adds an idle connection; after Stop it counts as sent away from the start. The ticket is valid
  // until Remove.
  [[nodiscard]] TTicket Add(std::weak_ptr<THttpConnection> connection, std::int64_t deadlineTick)
      KZ_EXCLUDES(FLock);
  void Remove(TTicket ticket) KZ_EXCLUDES(FLock);

  [[nodiscard]] bool IsEmpty() KZ_EXCLUDES(FLock);

  // Makes the connection busy, without a deadline until SetDeadline. False when it has been sent
  // away: it must not answer.
  [[nodiscard]] bool StartAnswer(TTicket ticket) KZ_EXCLUDES(FLock);
  void SetDeadline(TTicket ticket, std::int64_t deadlineTick) KZ_EXCLUDES(FLock);

  // Makes the connection idle, as the one that has been idle for the shortest time. False when it
  // has been sent away or the table is stopped: the connection must end.
  [[nodiscard]] bool FinishAnswer(TTicket ticket, std::int64_t deadlineTick) KZ_EXCLUDES(FLock);

  // Makes room for one more connection: at the limit, sends away the connection that has been idle
  // longest. False when all are busy.
  [[nodiscard]] bool MakeRoom(std::size_t limit) KZ_EXCLUDES(FLock);

  // Sends away every connection whose deadline has been reached.
  void SendAwayExpired(std::int64_t nowTick) KZ_EXCLUDES(FLock);

  // Sends the idle connections away at once, and each busy one as soon as its answer is complete.
  void Stop() KZ_EXCLUDES(FLock);

  // Waits until no connection is busy, at most until the clock reaches the tick.
  void WaitUntilNoneBusy(TClock& clock, std::int64_t deadlineTick) KZ_EXCLUDES(FLock);

  // Sends all connections away, the busy ones too.
  void SendAwayAll() KZ_EXCLUDES(FLock);

 private:
  void SetPhaseLocked(TEntry& entry, TPhase phase) KZ_REQUIRES(FLock);

  // The entries stand in the order in which they became idle. FOpen counts those not sent away.
  TMutex FLock;
  std::list<TEntry> FEntries KZ_GUARDED_BY(FLock);
  std::size_t FOpen KZ_GUARDED_BY(FLock) = 0;
  std::size_t FBusy KZ_GUARDED_BY(FLock) = 0;
  bool FStopped KZ_GUARDED_BY(FLock) = false;
  TCondition FNoneBusy;
};

}  // namespace guardian
