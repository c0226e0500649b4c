#include "diagnostics/jobs/MutexGuardian.h"

#include <chrono>
#include <cstddef>
#include <utility>

#include "common/DiagnosticMessage.h"
#include "diagnostics/checkpoints/ThreadReport.h"
#include "diagnostics/jobs/RunReport.h"

namespace guardian {
namespace {

constexpr std::int32_t kStrikes = 3;
constexpr std::int32_t kMaxReports = 10;

// How long a thread has been silent, and how long it may.
struct TInactivity {
  bool Known = false;  // It has a checkpoint record.
  std::int64_t Seconds = 0;
  std::int64_t AllowanceSeconds = 0;

  [[nodiscard]] bool Exceeds(int minutes) const {
    return Seconds > AllowanceSeconds + std::int64_t{minutes} * 60;
  }
  [[nodiscard]] std::string Duration() const {
    return FormatDuration(static_cast<TDateTime>(Seconds) * kSecond);
  }
};

TInactivity InactivityOf(KZCP::TThreadId threadId, std::int64_t tick,
                         const TCheckpointLookup& lookUp) {
  const KZCP::TCPTimes times = lookUp(threadId);
  return {times.CPTime != 0, (tick - times.CPTime) / kTicksPerSecond, times.PreviousCPTime};
}

void CloseByForce(TMutexEntry& entry, TDateTime now, TMutexRegistry& registry)
    KZ_REQUIRES(registry.Lock) {
  registry.ReportNeeded = true;
  registry.Log("Forced closing Job Mutex due to inactivity");
  entry.Info.CallbackDone = false;
  entry.Info.FreedReported = false;
  entry.Info.FreedAt = now;
  // The last step: an invalid handle ends the pass, and the entry is reported all the same.
  CloseMutex(entry.Info, registry.Clock());
}

void JudgeForFreeing(TMutexEntry& entry, const TPassMoment& now, TMutexRegistry& registry,
                     const TCheckpointLookup& lookUp) KZ_REQUIRES(registry.Lock) {
  TMutexInfo& info = entry.Info;
  const int limit = registry.Settings.JobMutexInactivityMinutes;
  const TInactivity owner = InactivityOf(info.OwnerThread, now.Tick, lookUp);
  if (limit < 1 || (owner.Known && !owner.Exceeds(limit))) {
    info.FreeStrikes = 0;
    return;
  }
  // Three strikes do not free the mutex; the fourth pass in a row does. So an owner has a minute to
  // pass a checkpoint after the machine was asleep.
  if (info.FreeStrikes < kStrikes) {
    ++info.FreeStrikes;
    return;
  }
  CloseByForce(entry, now.Now, registry);
}

void AnnounceMalfunction(TMutexRegistry& registry) {
  if (!registry.ReportingMalfunction || registry.MalfunctionReported.exchange(true)) return;
  registry.Log("Mutex Guardian Reporting Thread Malfunction");
}

// What one pass of the reporting thread has found so far.
class TReportingPass {
 public:
  TReportingPass(const TPassMoment& now, TMutexRegistry& registry, const TCheckpointLookup& lookUp)
      : FNow(now), FRegistry(registry), FLookUp(lookUp) {}

  void Run() KZ_EXCLUDES(FRegistry.Lock);

 private:
  void JudgeMainThread() KZ_REQUIRES(FRegistry.Lock);
  void ReportMainThread(const TInactivity& mainThread) KZ_REQUIRES(FRegistry.Lock);
  void JudgeEntry(TMutexEntry& entry) KZ_REQUIRES(FRegistry.Lock);
  void WriteWhenDue() const;
  void ReportFreed(TMutexInfo& info);
  [[nodiscard]] bool ReportAge(TMutexInfo& info);
  void JudgeOwner(TMutexInfo& info) KZ_REQUIRES(FRegistry.Lock);
  void ReportOwner(TMutexInfo& info, const TInactivity& owner) KZ_REQUIRES(FRegistry.Lock);
  void MakeDue(const std::string& text);

  // Whether the main-thread threshold has passed since an instant.
  [[nodiscard]] bool ThresholdPassedSince(TDateTime instant) const {
    return FNow.Now > instant + Limit() * kMinute;
  }
  [[nodiscard]] int Limit() const { return FRegistry.Settings.MainThreadInactivityMinutes; }

  const TPassMoment FNow;
  TMutexRegistry& FRegistry;
  const TCheckpointLookup& FLookUp;
  std::string FMessage;
  bool FDue = false;
};

void TReportingPass::Run() {
  const TKZLockGuard lock(FRegistry.Lock);
  JudgeMainThread();
  for (const auto& entry : FRegistry.Entries()) {
    if (!entry->Listed) continue;
    JudgeEntry(*entry);
    WriteWhenDue();
  }
}

void TReportingPass::MakeDue(const std::string& text) {
  FMessage += text;
  FDue = true;
}

void TReportingPass::JudgeMainThread() {
  TMutexReportingState& state = FRegistry.Reporting;
  const TInactivity mainThread = InactivityOf(KZCP::MainThreadId(), FNow.Tick, FLookUp);
  if (Limit() < 1 || !mainThread.Exceeds(Limit()) || state.MainReports >= kMaxReports ||
      !ThresholdPassedSince(state.LastMainReport)) {
    state.MainStrikes = 0;
    return;
  }
  if (state.MainStrikes < kStrikes) {
    ++state.MainStrikes;
    return;
  }
  ReportMainThread(mainThread);
}

void TReportingPass::ReportMainThread(const TInactivity& mainThread) {
  // Counted here; the report is written when the loop reaches an entry. So none is written while
  // the registry is empty, on purpose: there is no job mutex that a job could wait for.
  ++FRegistry.Reporting.MainReports;
  FRegistry.ReportNeeded = true;
  FRegistry.Reporting.LastMainReport = FNow.Now;
  MakeDue(mainThread.Known ? "Main Thread Inactive For " + mainThread.Duration() + "\n"
                           : "Main Thread no longer seems to exist");
}

void TReportingPass::JudgeEntry(TMutexEntry& entry) {
  TMutexInfo& info = entry.Info;
  if (info.FreedAt > 0) ReportFreed(info);
  if (info.Handle > 0 && !ReportAge(info)) JudgeOwner(info);
}

void TReportingPass::ReportFreed(TMutexInfo& info) {
  if (!info.CallbackDone) {
    info.CallbackDone = true;
    // A failing callback must not keep the report from being written.
    if (info.OnFreed && !Guarded("TMutexGuardianReportThread.OnFreed", FRegistry.Clock(),
                                 [&info] { info.OnFreed(info.RegisteredHandle); })) {
      FRegistry.ReportingMalfunction = true;
    }
  }
  if (info.FreedReported) return;
  info.FreedReported = true;
  const TInactivity owner = InactivityOf(info.OwnerThread, FNow.Tick, FLookUp);
  MakeDue("Job Mutex freed for profile " + info.ProfileName +
          (owner.Known ? ", Inactive For " + owner.Duration() : ", thread no longer exists") +
          "\n");
}

bool TReportingPass::ReportAge(TMutexInfo& info) {
  const int limit = FRegistry.Settings.MaxAgeMinutes;
  const TDateTime age = FNow.Now - info.RegisteredAt;
  if (limit < 1 || info.AgeReported || age <= limit * kMinute) return false;
  FRegistry.ReportNeeded = true;
  info.AgeReported = true;
  MakeDue("Profile " + info.ProfileName + " Job Mutex Age = " + FormatDuration(age) + "\n");
  return true;
}

void TReportingPass::JudgeOwner(TMutexInfo& info) {
  const TInactivity owner = InactivityOf(info.OwnerThread, FNow.Tick, FLookUp);
  if (Limit() < 1 || !owner.Exceeds(Limit()) || info.InactivityReports >= kMaxReports ||
      !ThresholdPassedSince(FRegistry.Reporting.LastProfileReport)) {
    info.MainStrikes = 0;
    return;
  }
  if (info.MainStrikes < kStrikes) {
    ++info.MainStrikes;
    return;
  }
  ReportOwner(info, owner);
}

void TReportingPass::ReportOwner(TMutexInfo& info, const TInactivity& owner) {
  FRegistry.Reporting.LastProfileReport = FNow.Now;
  FRegistry.ReportNeeded = true;
  ++info.InactivityReports;
  MakeDue("Profile " + info.ProfileName +
          (owner.Known ? " Main Thread Inactive For " + owner.Duration() + "\n"
                       : std::string(" Main Thread no longer exists")));
}

// Resets nothing, on purpose: once a report is due, each further entry of the pass writes one with
// the whole message so far. With three entries, of which the first was freed, there are three
// reports.
void TReportingPass::WriteWhenDue() const {
  if (FDue) WriteRunReport(FRegistry, FMessage);
}

}  // namespace

void FreeInactiveMutexes(const TPassMoment& now, TMutexRegistry& registry,
                         const TCheckpointLookup& lookUp) noexcept {
  KZCP::Checkpoint("MutexGuardian.Free");
  Guarded("TMutexGuardianFreeMutexThread", registry.Clock(), [&] {
    const TKZLockGuard lock(registry.Lock);
    for (const auto& entry : registry.Entries()) {
      if (entry->Listed && entry->Info.Handle > 0) JudgeForFreeing(*entry, now, registry, lookUp);
    }
  });
  Guarded("TMutexGuardianFreeMutexThread", registry.Clock(),
          [&] { AnnounceMalfunction(registry); });
  KZCP::Checkpoint("MutexGuardian.FreeDone");
}

void ReportInactivity(const TPassMoment& now, TMutexRegistry& registry,
                      const TCheckpointLookup& lookUp) noexcept {
  KZCP::Checkpoint("MutexGuardian.Report");
  const bool whole = Guarded("TMutexGuardianReportThread", registry.Clock(),
                             [&] { TReportingPass(now, registry, lookUp).Run(); });
  if (!whole) registry.ReportingMalfunction = true;
  KZCP::Checkpoint("MutexGuardian.ReportDone");
}

TMutexGuardianThread::TMutexGuardianThread(std::string name, TMutexRegistry& registry, TPass pass,
                                           TCheckpointLookup lookUp)
    : TThread(std::move(name), std::size_t{4'194'304}),
      FRegistry(registry),
      FPass(pass),
      FLookUp(std::move(lookUp)),
      FTerminate("MutexGuardianEnd", TEventReset::Manual, registry.Clock()) {}

void TMutexGuardianThread::Execute() {
  constexpr std::chrono::milliseconds kSleep{250};
  constexpr int kSleepsPerPass = 80;
  int sleeps = 0;
  while (!FTerminate.WaitFor(kSleep)) {
    if (++sleeps % kSleepsPerPass == 0)
      FPass(TPassMoment::Of(FRegistry.Clock()), FRegistry, FLookUp);
  }
}

}  // namespace guardian
