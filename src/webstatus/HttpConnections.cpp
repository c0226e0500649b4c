#include "webstatus/HttpConnections.h"

#include <limits>
#include <utility>

namespace guardian {
namespace {

constexpr std::int64_t kNoDeadline = std::numeric_limits<std::int64_t>::max();

}  // namespace

THttpConnections::TTicket THttpConnections::Add(std::weak_ptr<THttpConnection> connection,
                                                std::int64_t deadlineTick) {
  const TMutexLock lock(FLock);
  FEntries.push_back({std::move(connection), TPhase::Idle, deadlineTick});
  ++FOpen;
  if (FStopped) SetPhaseLocked(FEntries.back(), TPhase::SentAway);
  return std::prev(FEntries.end());
}

void THttpConnections::Remove(TTicket ticket) {
  const TMutexLock lock(FLock);
  SetPhaseLocked(*ticket, TPhase::SentAway);
  FEntries.erase(ticket);
}

bool THttpConnections::IsEmpty() {
  const TMutexLock lock(FLock);
  return FEntries.empty();
}

bool THttpConnections::StartAnswer(TTicket ticket) {
  const TMutexLock lock(FLock);
  if (ticket->Phase == TPhase::SentAway) return false;
  SetPhaseLocked(*ticket, TPhase::Busy);
  ticket->DeadlineTick = kNoDeadline;
  return true;
}

void THttpConnections::SetDeadline(TTicket ticket, std::int64_t deadlineTick) {
  const TMutexLock lock(FLock);
  ticket->DeadlineTick = deadlineTick;
}

bool THttpConnections::FinishAnswer(TTicket ticket, std::int64_t deadlineTick) {
  const TMutexLock lock(FLock);
  if (ticket->Phase == TPhase::SentAway) return false;
  SetPhaseLocked(*ticket, FStopped ? TPhase::SentAway : TPhase::Idle);
  ticket->DeadlineTick = deadlineTick;
  FEntries.splice(FEntries.end(), FEntries, ticket);
  return !FStopped;
}

bool THttpConnections::MakeRoom(std::size_t limit) {
  std::shared_ptr<THttpConnection> oldestIdle;
  {
    const TMutexLock lock(FLock);
    if (FOpen < limit) return true;
    for (TEntry& entry : FEntries) {
      if (entry.Phase != TPhase::Idle) continue;
      oldestIdle = entry.Connection.lock();
      SetPhaseLocked(entry, TPhase::SentAway);
      break;
    }
    if (FOpen >= limit) return false;
  }
  // Without a reference the connection is ending already.
  if (oldestIdle) oldestIdle->ShutDown(THttpShutdown::Orderly);
  return true;
}

// The references are collected under the lock and dropped after it: the last one frees the
// connection, which then enters the lock to leave the table.
void THttpConnections::SendAwayExpired(std::int64_t nowTick) {
  TReferences idle;
  TReferences busy;
  {
    const TMutexLock lock(FLock);
    for (TEntry& entry : FEntries) {
      if (entry.Phase == TPhase::SentAway || nowTick < entry.DeadlineTick) continue;
      (entry.Phase == TPhase::Idle ? idle : busy).push_back(entry.Connection.lock());
      SetPhaseLocked(entry, TPhase::SentAway);
    }
  }
  for (const auto& connection : idle) {
    if (connection) connection->ShutDown(THttpShutdown::Orderly);
  }
  for (const auto& connection : busy) {
    if (connection) connection->ShutDown(THttpShutdown::Reset);
  }
}

void THttpConnections::Stop() {
  TReferences idle;
  {
    const TMutexLock lock(FLock);
    FStopped = true;
    for (TEntry& entry : FEntries) {
      if (entry.Phase != TPhase::Idle) continue;
      idle.push_back(entry.Connection.lock());
      SetPhaseLocked(entry, TPhase::SentAway);
    }
  }
  for (const auto& connection : idle) {
    if (connection) connection->ShutDown(THttpShutdown::Orderly);
  }
}

void THttpConnections::WaitUntilNoneBusy(TClock& clock, std::int64_t deadlineTick) {
  const TMutexLock lock(FLock);
  clock.WaitUntil(FLock, FNoneBusy, deadlineTick,
                  [this]() KZ_REQUIRES(FLock) { return FBusy == 0; });
}

void THttpConnections::SendAwayAll() { SendAwayExpired(kNoDeadline); }

void THttpConnections::SetPhaseLocked(TEntry& entry, TPhase phase) {
  if (entry.Phase == phase) return;
  if (entry.Phase == TPhase::Busy && --FBusy == 0) FNoneBusy.NotifyAll();
  if (phase == TPhase::Busy) ++FBusy;
  if (phase == TPhase::SentAway) --FOpen;
  entry.Phase = phase;
}

}  // namespace guardian
