#include "diagnostics/jobs/MutexRegistry.h"

#include <utility>

#include "common/DiagnosticMessage.h"
#include "common/NeverDestroyed.h"
#include "common/Thread.h"

namespace guardian {
namespace {

// An entry that the guardian has freed by force has the handle 0. So it matches every
// unregistration with the handle 0, whatever the numbers, also that of another job.
bool Matches(const TMutexInfo& info, TFileHandle handle, std::int32_t mutexNumber) {
  if (info.Handle == handle) return true;
  return (info.Handle == 0 || handle == 0) && info.MutexNumber == mutexNumber;
}

}  // namespace

void CloseMutex(TMutexInfo& info, TClock& clock) {
  CloseHandle(std::exchange(info.Handle, 0), clock);
}

void TMutexRegistry::CreateList() {
  const TKZLockGuard lock(Lock);
  if (!FList) FList.emplace();
}

void TMutexRegistry::FreeList() { FList.reset(); }

int TMutexRegistry::Register(std::string name, std::string profileName, TFileHandle handle,
                             TReportProvider reportProvider, TMutexFreedCallback onFreed,
                             std::int32_t mutexNumber) {
  const TKZLockGuard lock(Lock);
  if (!FList) return 0;
  auto entry = std::make_shared<TMutexEntry>();
  entry->Name = std::move(name);
  TMutexInfo& info = entry->Info;
  info.ProfileName = std::move(profileName);
  info.ReportProvider = std::move(reportProvider);
  info.OnFreed = std::move(onFreed);
  info.Handle = handle;
  info.RegisteredHandle = handle;
  info.RegisteredAt = FClock.SteadyNow();
  info.OwnerThread = CurrentThreadId() & 0x7FFFFFFF;
  info.MutexNumber = mutexNumber;
  FList->push_back(std::move(entry));
  return static_cast<int>(FList->size()) - 1;
}

void TMutexRegistry::Unregister(TFileHandle handle, std::int32_t mutexNumber) {
  std::string known;
  {
    const TKZLockGuard lock(Lock);
    if (!FList || RemoveMatching(handle, mutexNumber) || handle <= 0) return;
    known = ListText();
  }
  DiagnosticMessage("Unable to unregister mutex #" + std::to_string(handle), FClock);
  DiagnosticMessage("Known Job Mutex List:\n" + known, FClock);
}

bool TMutexRegistry::RemoveMatching(TFileHandle handle, std::int32_t mutexNumber) {
  bool found = false;
  for (const auto& entry : Entries()) {
    if (!entry->Listed || !Matches(entry->Info, handle, mutexNumber)) continue;
    if (entry->Info.Handle != 0 && handle == 0) CloseLeftOpen(*entry);
    entry->Listed = false;
    std::erase(*FList, entry);
    found = true;
  }
  return found;
}

// A failure is reported only: the job is over, and the entry is removed all the same.
void TMutexRegistry::CloseLeftOpen(TMutexEntry& entry) {
  const std::string where = "UnregisterMutex " + entry.Name;
  ReportNeeded = true;
  Guarded(where, FClock, [this] { Log("Job Mutex still open in call to UnregisterMutex"); });
  Guarded(where, FClock, [this, &entry] { CloseMutex(entry.Info, FClock); });
}

TMutexEntries TMutexRegistry::Entries() const { return FList.value_or(TMutexEntries()); }

std::string TMutexRegistry::ListText() const {
  std::string text;
  for (const auto& entry : Entries()) text.append(entry->Name).append("\n");
  return text;
}

void TMutexRegistry::Log(std::string_view text) const {
  if (Settings.LogHook) Settings.LogHook(text);
}

TMutexRegistry& MutexRegistry() {
  static TNeverDestroyed<TMutexRegistry> registry;
  return *registry;
}

}  // namespace guardian
