#include "guardian/process/ChildRegistry.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "common/Clock.h"
#include "common/NeverDestroyed.h"

namespace guardian {
namespace {

// As process 1, or by its launcher's wish, this process gets the children of those that have ended.
bool OrphansFallToUs() {
  int isReaper = 0;
  return ::getpid() == 1 || (::prctl(PR_GET_CHILD_SUBREAPER, &isReaper) == 0 && isReaper != 0);
}

}  // namespace

TChildRegistry& Children() {
  static TNeverDestroyed<TChildRegistry> children;
  return *children;
}

bool IsOwnProcess(pid_t pid) { return pid == ::getpid() || Children().HasLately(pid); }

TChildRegistry::TStart::TStart() {
  const TKZLockGuard lock(Children().FLock);
  ++Children().FStarts;
}

TChildRegistry::TStart::~TStart() {
  const TKZLockGuard lock(Children().FLock);
  --Children().FStarts;
}

void TChildRegistry::Add(pid_t pid) {
  const TKZLockGuard lock(FLock);
  FChildren.push_back({.Pid = pid});
}

void TChildRegistry::Remove(pid_t pid) {
  const TKZLockGuard lock(FLock);
  for (TChild& child : FChildren) {
    if (child.Pid == pid && child.EndedAt == kRuns) child.EndedAt = SystemTickCount();
  }
}

void TChildRegistry::Abandon(pid_t pid) {
  const TKZLockGuard lock(FLock);
  for (TChild& child : FChildren) {
    if (child.Pid == pid && child.EndedAt == kRuns) child.Abandoned = true;
  }
}

void TChildRegistry::ReapEnded() {
  constexpr std::int64_t kRememberedMs = 10'000;
  const TKZLockGuard lock(FLock);
  std::erase_if(FChildren, [now = SystemTickCount()](const TChild& child) {
    return child.EndedAt != kRuns && child.EndedAt < now - kRememberedMs;
  });
  ReapAbandonedLocked();
  if (FStarts == 0 && OrphansFallToUs()) ReapOrphansLocked();
}

bool TChildRegistry::HasLately(pid_t pid) {
  const pid_t group = ::getpgid(pid);
  const TKZLockGuard lock(FLock);
  return std::any_of(FChildren.begin(), FChildren.end(), [=](const TChild& child) {
    return child.Pid == pid || (child.Pid == group && child.EndedAt == kRuns);
  });
}

void TChildRegistry::ReapAbandonedLocked() {
  for (TChild& child : FChildren) {
    const bool waits = child.Abandoned && child.EndedAt == kRuns;
    if (waits && ::waitpid(child.Pid, nullptr, WNOHANG) != 0) child.EndedAt = SystemTickCount();
  }
}

// Ends at a child of ours, which its owner is about to reap: the orphans behind it have time until
// the next command.
void TChildRegistry::ReapOrphansLocked() {
  constexpr int kMostAtOnce = 1000;
  for (int reaped = 0; reaped < kMostAtOnce; ++reaped) {
    siginfo_t ended{};
    if (::waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) != 0) return;
    if (ended.si_pid == 0 || RunsLocked(ended.si_pid)) return;
    ::waitpid(ended.si_pid, nullptr, WNOHANG);
  }
}

bool TChildRegistry::RunsLocked(pid_t pid) const {
  return std::any_of(FChildren.begin(), FChildren.end(), [=](const TChild& child) {
    return child.Pid == pid && child.EndedAt == kRuns;
  });
}

}  // namespace guardian
