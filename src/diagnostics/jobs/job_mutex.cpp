#include "diagnostics/job_mutex.h"

#include <sys/single_threaded.h>

#include <algorithm>
#include <cassert>
#include <memory>
#include <utility>

#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "common/NeverDestroyed.h"
#include "diagnostics/jobs/MutexGuardian.h"
#include "diagnostics/jobs/RunReport.h"

namespace guardian {
namespace {

// Both guardian threads.
// Threads: main thread only.
struct TGuardianUnit {
  bool Started = false;
  std::unique_ptr<TMutexGuardianFreeMutexThread> Freeing;
  std::unique_ptr<TMutexGuardianReportThread> Reporting;
};

// Made at first use, never freed.
TGuardianUnit& Unit() {
  assert(IsMainThread());
  static TNeverDestroyed<TGuardianUnit> unit;
  return *unit;
}

bool IsOpen(const std::shared_ptr<TMutexEntry>& entry) { return entry->Info.Handle > 0; }

enum class TThreading { Single, Multi };

TThreading CurrentThreading() {
  return __libc_single_threaded != 0 ? TThreading::Single : TThreading::Multi;
}

// Both guardian threads have ended by now.
void CloseMutexes(TMutexRegistry& registry, TThreading threading) {
  const TKZLockGuard lock(registry.Lock);
  const TMutexEntries entries = registry.Entries();
  const bool stillOpen =
      threading == TThreading::Multi && std::any_of(entries.begin(), entries.end(), IsOpen);
  if (stillOpen) WriteRunReport(registry, "Job Mutex Still Open Upon Program Termination");
  for (const auto& entry : entries) {
    if (IsOpen(entry)) CloseMutex(entry->Info, registry.Clock());
    // Thrown at the first entry, not after the loop: a job mutex that is left open is a fault that
    // must surface. The other entries stay as they are, so that the cause can be looked for.
    if (stillOpen) throw KZException("Mutexes still open: " + registry.ListText());
  }
  registry.FreeList();
}

}  // namespace

void StartMutexGuardian() {
  TGuardianUnit& unit = Unit();
  if (unit.Started) return;
  TMutexRegistry& registry = MutexRegistry();
  registry.CreateList();
  auto freeing = std::make_unique<TMutexGuardianFreeMutexThread>(registry);
  auto reporting = std::make_unique<TMutexGuardianReportThread>(registry);
  freeing->Start();
  reporting->Start();
  unit.Freeing = std::move(freeing);
  unit.Reporting = std::move(reporting);
  unit.Started = true;
}

int RegisterMutex(std::string name, std::string profileName, TFileHandle handle,
                  TReportProvider reportProvider, TMutexFreedCallback onFreed,
                  std::int32_t mutexNumber) {
  return MutexRegistry().Register(std::move(name), std::move(profileName), handle,
                                  std::move(reportProvider), std::move(onFreed), mutexNumber);
}

void UnregisterMutex(TFileHandle handle, std::int32_t mutexNumber) {
  MutexRegistry().Unregister(handle, mutexNumber);
}

void CheckMutexesAtTermination() {
  TGuardianUnit& unit = Unit();
  // Asked before the join: with the end of the last other thread the C library may call the process
  // single-threaded again.
  const TThreading threading = CurrentThreading();
  if (unit.Reporting) unit.Reporting->Terminate();  // So that both end at the same time.
  unit.Freeing.reset();
  unit.Reporting.reset();
  CloseMutexes(MutexRegistry(), threading);
  unit.Started = false;
}

}  // namespace guardian
