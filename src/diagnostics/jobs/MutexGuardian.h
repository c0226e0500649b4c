#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "common/Clock.h"
#include "common/Event.h"
#include "common/Thread.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/jobs/MutexRegistry.h"

namespace guardian {

// The two threads that watch over the job mutexes. job_mutex.h starts them.

// The moment of a pass: an instant of SteadyNow(), and the tick count in milliseconds that
// checkpoint times are compared with.
struct TPassMoment {
  TDateTime Now = 0;
  std::int64_t Tick = 0;

  [[nodiscard]] static TPassMoment Of(const TClock& clock) {
    return {clock.SteadyNow(), clock.TickCount()};
  }
};

// Returns the time values of a thread, all 0 for a thread without a checkpoint record.
using TCheckpointLookup = std::function<KZCP::TCPTimes(KZCP::TThreadId threadId)>;

// One pass of the freeing thread: closes each job mutex whose owner has been inactive beyond the
// limit in this pass and in the three passes before it. Holds the registry's lock; blocks for up to
// a second for each file that it closes. An exception ends the pass and is named in the error log.
void FreeInactiveMutexes(const TPassMoment& now, TMutexRegistry& registry,
                         const TCheckpointLookup& lookUp) noexcept;

// One pass of the reporting thread: calls the on-freed callbacks and writes run reports for freed
// job mutexes, for an inactive main thread or owner, and for job mutexes that are too old. Holds
// the registry's lock. A failure sets ReportingMalfunction and is named in the error log.
void ReportInactivity(const TPassMoment& now, TMutexRegistry& registry,
                      const TCheckpointLookup& lookUp) noexcept;

// A thread that makes a pass over the registry about every 20 seconds.
// Owner: job_mutex.cpp; destroying it ends it after the pass under way.
// Threads: its owner creates, starts and destroys it.
// Lifetime: the registry and its clock outlive it. A derived class calls Join first in its
// destructor.
class TMutexGuardianThread : public TThread {
 public:
  // What a pass does. The moment is that of the registry's clock.
  using TPass = void (*)(const TPassMoment& now, TMutexRegistry& registry,
                         const TCheckpointLookup& lookUp) noexcept;

  TMutexGuardianThread(std::string name, TMutexRegistry& registry, TPass pass,
                       TCheckpointLookup lookUp = KZCP::CPTime);
  ~TMutexGuardianThread() override { Join(); }
  TMutexGuardianThread(const TMutexGuardianThread&) = delete;
  TMutexGuardianThread& operator=(const TMutexGuardianThread&) = delete;

 private:
  void Execute() override;
  void OnTerminate() override { FTerminate.Signal(); }

  TMutexRegistry& FRegistry;
  const TPass FPass;
  const TCheckpointLookup FLookUp;
  TKZEvent FTerminate;
};

class TMutexGuardianFreeMutexThread final : public TMutexGuardianThread {
 public:
  explicit TMutexGuardianFreeMutexThread(TMutexRegistry& registry)
      : TMutexGuardianThread("TMutexGuardianFreeMutexThread", registry, FreeInactiveMutexes) {}
  ~TMutexGuardianFreeMutexThread() override { Join(); }
};

class TMutexGuardianReportThread final : public TMutexGuardianThread {
 public:
  explicit TMutexGuardianReportThread(TMutexRegistry& registry)
      : TMutexGuardianThread("TMutexGuardianReportThread", registry, ReportInactivity) {}
  ~TMutexGuardianReportThread() override { Join(); }
};

}  // namespace guardian
