#include "diagnostics/job_mutex.h"

#include <sys/single_threaded.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "common/Exceptions.h"
#include "common/NeverDestroyed.h"
#include "diagnostics/jobs/MutexGuardian.h"
#include "diagnostics/jobs/RunReport.h"

namespace guardian {
namespace {

// The main thread's.
struct TGuardianUnit {
  bool Started = false;
  std::unique_ptr<TMutexGuardianFreeMutexThread> Freeing;
  std::unique_ptr<TMutexGuardianReportThread> Reporting;
};

// Made at first use, never freed.
TGuardianUnit& Unit() {
  static TNeverDestroyed<TGuardianUnit> unit;
  return *unit;
}

bool IsOpen(const std::shared_ptr<TMutexEntry>& entry) { return entry->Info.Handle > 0; }

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
  // Asked before the threads are joined: the runtime may take the flag back with the last of them.
  const auto threading = __libc_single_threaded != 0 ? TThreading::Single : TThreading::Multi;
  if (unit.Reporting) unit.Reporting->Terminate();  // So that both end at the same time.
  unit.Freeing.reset();
  unit.Reporting.reset();
  CloseMutexesAtTermination(MutexRegistry(), threading);
  unit.Started = false;
}

void CloseMutexesAtTermination(TMutexRegistry& registry, TThreading threading) {
  const TKZLockGuard lock(registry.Lock);
  const TMutexEntries entries = registry.Entries();
  const bool stillOpen =
      threading == TThreading::Multi && std::any_of(entries.begin(), entries.end(), IsOpen);
  if (stillOpen) WriteRunReport(registry, "Job Mutex Still Open Upon Program Termination");
  for (const auto& entry : entries) {
    if (IsOpen(entry)) CloseMutex(entry->Info, registry.Clock());
    // Thrown at the first entry, not behind the loop: a job mutex that is left open is a fault that
    // must surface, and the other entries stay as they are for whoever looks into it.
    if (stillOpen) throw KZException("Mutexes still open: " + registry.ListText());
  }
  registry.FreeList();
}

}  // namespace guardian
