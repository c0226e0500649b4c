#pragma once

#include <string>

#include "common/Clock.h"
#include "common/SharedText.h"

namespace guardian {

// What the pages show of the guardian service, taken at one moment.
// Texts from outside are raw here; the pages escape them. The logs and the status text are HTML.
struct TGuardianStatus {
  TSharedText::TText StatusText;
  std::string DaemonPath;
  bool DaemonPathExists = false;
  std::string MutexPath;
  std::string DaemonTempPath;
  bool GotPaths = false;
  bool GetPathsError = false;
  TSharedText::TText ProcessList;
  TDateTime ProcessListTime = 0;  // Local wall time; zero when none was taken.
  TSharedText::TText InitialOutput;
  TSharedText::TText ActivityLog;
  TSharedText::TText DetailedLog;
};

// The guardian service as the pages see it.
// Threads: the HTTP threads call everything, several at once; nothing blocks, and no lock is
// shared with the watchdog's tick.
class TGuardianControl {
 public:
  virtual ~TGuardianControl() = default;

  [[nodiscard]] virtual TGuardianStatus Status() const = 0;

  // Each leaves a request that the watchdog carries out about a second later.
  virtual void RequestStart() = 0;
  virtual void RequestStop() = 0;
  virtual void RequestTerminate() = 0;
  virtual void RequestKill() = 0;
};

}  // namespace guardian
