#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Clock.h"
#include "common/FileHandle.h"
#include "diagnostics/KZCriticalSection.h"

namespace guardian {

// The detailed report of one profile. The program that holds the profile's job mutex renders it.
class TProfileReport {
 public:
  TProfileReport() = default;
  virtual ~TProfileReport() = default;
  TProfileReport(const TProfileReport&) = delete;
  TProfileReport& operator=(const TProfileReport&) = delete;

  // May throw; the exception's message then stands in the report.
  [[nodiscard]] virtual std::string Text() = 0;
};

// Called while a run report is written; may throw.
using TReportProvider = std::function<std::unique_ptr<TProfileReport>()>;

// Called once, with the handle as it was registered, after the guardian has freed a mutex by force;
// may be empty.
using TMutexFreedCallback = std::function<void(TFileHandle registeredHandle)>;

// One registered job mutex: which thread holds it, and since when. Instants are those of
// SteadyNow().
struct TMutexInfo {
  std::string ProfileName;
  TReportProvider ReportProvider;
  TMutexFreedCallback OnFreed;
  TFileHandle Handle = 0;  // Above 0 while open.
  TFileHandle RegisteredHandle = 0;
  TDateTime RegisteredAt = 0;
  TDateTime FreedAt = 0;  // 0 until the guardian frees it.
  bool CallbackDone = false;
  bool AgeReported = false;
  bool FreedReported = false;
  std::int32_t FreeStrikes = 0;  // Passes in a row that found the owner inactive, up to 3.
  std::int32_t MainStrikes = 0;  // The same for the reporting thread.
  std::int32_t InactivityReports = 0;
  std::int32_t OwnerThread = 0;
  std::int32_t MutexNumber = 0;
};

struct TMutexEntry {
  std::string Name;
  TMutexInfo Info;
  bool Listed = true;  // False from its unregistration on; a walk that reaches it then skips it.
};

// Sets the entry's handle to 0 and closes the file, blocking for up to a second; the caller holds
// the registry's lock. Throws KZException when the handle is not a file object's. The handle is 0
// then as well, so that no walk ends at this entry again.
void CloseMutex(TMutexInfo& info, TClock& clock);

using TMutexEntries = std::vector<std::shared_ptr<TMutexEntry>>;

// The settings of the guardian threads. Minutes below 1 switch a check off.
struct TMutexGuardianSettings {
  int MaxAgeMinutes = 0;
  int MainThreadInactivityMinutes = 2;
  int JobMutexInactivityMinutes = 10;

  // Receives the messages of the guardian; empty to discard them.
  std::function<void(std::string_view text)> LogHook;
  // Receives the reason and path of each run report before it is written; may be empty.
  std::function<void(const std::string& text)> ReportLog;
  // The folder of the run reports; empty for LogFolder().
  std::string ReportFolder;
};

// What the reporting thread remembers from pass to pass. Instants are those of SteadyNow().
struct TMutexReportingState {
  std::int32_t MainStrikes = 0;
  std::int32_t MainReports = 0;
  TDateTime LastMainReport = 0;
  TDateTime LastProfileReport = 0;  // Shared by all entries.
};

// The list of the job mutexes that the process holds.
//
// The lock is called "MutexList" and is held for the whole of a walk, also while on-freed
// callbacks, report providers, the hooks of the settings and the closing of a handle run: an entry
// must not change hands between the judgement and the report of it. The lock can be entered again,
// so all of these may register and unregister; they must not wait for another thread that does.
// Owner: MutexRegistry() is process-wide; a test owns its own.
// Threads: any thread may call anything. Settings is set before the guardian threads are started,
// and constant from then on.
class TMutexRegistry {
 public:
  explicit TMutexRegistry(TClock& clock = SystemClock()) : FClock(clock) {}
  TMutexRegistry(const TMutexRegistry&) = delete;
  TMutexRegistry& operator=(const TMutexRegistry&) = delete;

  // Makes an empty list when there is none.
  void CreateList() KZ_EXCLUDES(Lock);

  // Frees the list with its entries; open files stay open.
  void FreeList() KZ_REQUIRES(Lock);

  // Adds an entry that the calling thread owns and returns its index. Does nothing and returns 0
  // while there is no list.
  int Register(std::string name, std::string profileName, TFileHandle handle,
               TReportProvider reportProvider, TMutexFreedCallback onFreed,
               std::int32_t mutexNumber) KZ_EXCLUDES(Lock);

  // Removes every entry that has the given handle. When the given handle or that of the entry is 0,
  // an entry with the given number is removed, too. An entry that is still open although the given
  // handle is 0 is closed. Names an unknown handle above 0 in the error log. A failure with one
  // entry is not thrown.
  void Unregister(TFileHandle handle, std::int32_t mutexNumber) KZ_EXCLUDES(Lock);

  // The entries in list order, none while there is no list. It is a copy, so that callbacks may
  // change the list during a walk; the walk skips an entry that is no longer Listed.
  [[nodiscard]] TMutexEntries Entries() const KZ_REQUIRES(Lock);

  // The names, each followed by a line feed.
  [[nodiscard]] std::string ListText() const KZ_REQUIRES(Lock);

  // Hands a message to the log hook. An exception of the hook is thrown on.
  void Log(std::string_view text) const;

  [[nodiscard]] TClock& Clock() const noexcept { return FClock; }

  TMutexGuardianSettings Settings;

  // Atomics: either guardian thread sets them, each independent of the others.
  std::atomic<bool> ReportNeeded = false;
  std::atomic<bool> ReportingMalfunction = false;
  std::atomic<bool> MalfunctionReported = false;

  mutable TKZCriticalSection Lock{"MutexList"};
  TMutexReportingState Reporting KZ_GUARDED_BY(Lock);

 private:
  [[nodiscard]] bool RemoveMatching(TFileHandle handle, std::int32_t mutexNumber) KZ_REQUIRES(Lock);
  void CloseLeftOpen(TMutexEntry& entry) KZ_REQUIRES(Lock);

  TClock& FClock;
  std::optional<TMutexEntries> FList KZ_GUARDED_BY(Lock);
};

// The one object; made at first use, never freed.
[[nodiscard]] TMutexRegistry& MutexRegistry();

}  // namespace guardian
