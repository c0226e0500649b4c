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
  Orderly,  // What has been written still arrives.
  Reset,    // What has been written and not taken is thrown away.
};

// One open connection as THttpConnections sees it.
// Owner: its own chain of operations; whoever holds a reference keeps its socket from closing.
// Threads: any thread may call ShutDown.
class THttpConnection {
 public:
  THttpConnection() = default;
  virtual ~THttpConnection() = default;
  THttpConnection(const THttpConnection&) = delete;
  THttpConnection& operator=(const THttpConnection&) = delete;

  // Ends the traffic in both directions, so that the connection's chain wakes up and lets the
  // connection go. Never blocks; can be called again.
  virtual void ShutDown(THttpShutdown how) noexcept = 0;
};

// Who is connected, who may be sent away, and when.
//
// A connection is idle while it waits for a request, receives one or is taking its leave, and
// busy while it is being answered. Idle ones meet a deadline; once the limit is reached, the one
// that has been idle longest gives way to a new one.
// Owner: the server that is active; the table outlives its connections.
// Threads: any thread may call anything; a ticket is used by its connection alone. No connection
// is touched while the lock is held.
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

  // Lists an idle connection; after Stop it counts as sent away from the start. The ticket is
  // valid until Remove.
  [[nodiscard]] TTicket Add(std::weak_ptr<THttpConnection> connection, std::int64_t deadlineTick)
      KZ_EXCLUDES(FLock);
  void Remove(TTicket ticket) KZ_EXCLUDES(FLock);

  [[nodiscard]] bool IsEmpty() KZ_EXCLUDES(FLock);

  // Makes the connection busy, for as long as it likes until a deadline is set. False when it has
  // been sent away: it must not answer.
  [[nodiscard]] bool StartAnswer(TTicket ticket) KZ_EXCLUDES(FLock);
  void SetDeadline(TTicket ticket, std::int64_t deadlineTick) KZ_EXCLUDES(FLock);

  // Makes the connection idle from now on. False when it has been sent away or the table is
  // stopped: it must end.
  [[nodiscard]] bool FinishAnswer(TTicket ticket, std::int64_t deadlineTick) KZ_EXCLUDES(FLock);

  // Whether one more connection fits below the limit, if need be after the one that has been
  // idle longest was sent away.
  [[nodiscard]] bool MakeRoom(std::size_t limit) KZ_EXCLUDES(FLock);

  // Sends away whose deadline has been reached.
  void SendAwayExpired(std::int64_t nowTick) KZ_EXCLUDES(FLock);

  // Sends the idle ones away, and each busy one as soon as its answer is complete.
  void Stop() KZ_EXCLUDES(FLock);

  // Waits until nobody is busy, at most until the tick of the clock.
  void WaitUntilNoneBusy(TClock& clock, std::int64_t deadlineTick) KZ_EXCLUDES(FLock);

  // Sends the busy ones away too.
  void SendAwayAll() KZ_EXCLUDES(FLock);

 private:
  void SetPhaseLocked(TEntry& entry, TPhase phase) KZ_REQUIRES(FLock);

  TMutex FLock;
  std::list<TEntry> FEntries KZ_GUARDED_BY(FLock);  // In the order in which they became idle.
  std::size_t FOpen KZ_GUARDED_BY(FLock) = 0;       // Those not sent away.
  std::size_t FBusy KZ_GUARDED_BY(FLock) = 0;
  bool FStopped KZ_GUARDED_BY(FLock) = false;
  TCondition FNoneBusy;
};

}  // namespace guardian
