#pragma once

#include <atomic>
#include <string>

#include "common/Clock.h"
#include "common/SharedText.h"
#include "guardian/process/ProcessListing.h"

namespace guardian {

enum class TProcessCheck {
  Cached,  // Reads the process list only when the last reading is a minute old.
  Force,
};

// Whether the daemon's process runs, as the process list shows it.
// Owner: the guardian service.
// Threads: Check, ForgetCheck and ForgetPid by the timer thread; the published texts by any.
// Lifetime: shell and clock outlive it.
class TDaemonProcess {
 public:
  TDaemonProcess(TShell shell, TClock& clock);
  TDaemonProcess(const TDaemonProcess&) = delete;
  TDaemonProcess& operator=(const TDaemonProcess&) = delete;

  // Returns whether the daemon runs. Blocks for at most twice 5 seconds.
  bool Check(TProcessCheck mode);

  // Makes the next Check read afresh.
  void ForgetCheck() { FLastCheckAt = 0; }

  // For a process that is known to be gone.
  void ForgetPid() { FPid.Set({}); }

  // Empty when the daemon is not running.
  [[nodiscard]] std::string Pid() const { return FPid.Copy(); }

  // The raw text of the last listing, clipped to kShownOutputBytes.
  [[nodiscard]] TSharedText::TText LastListing() const { return FLastListing.Get(); }

  // When it was taken, an instant of TClock::SteadyNow; zero before the first.
  [[nodiscard]] TDateTime LastListingAt() const { return FLastListingAt.load(); }

 private:
  const TShell FShell;
  TClock& FClock;
  TDateTime FLastCheckAt = 0;
  bool FSeenRunning = false;
  TPsOptions FPsOptions = TPsOptions::Columns;
  TSharedText FPid;
  TSharedText FLastListing;
  std::atomic<TDateTime> FLastListingAt = 0;  // Atomic: pages read it.
};

}  // namespace guardian
