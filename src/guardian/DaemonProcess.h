#pragma once

#include <atomic>
#include <string>

#include "common/Clock.h"
#include "common/SharedText.h"
#include "common/ThreadChecker.h"
#include "guardian/process/ProcessListing.h"

namespace guardian {

enum class TProcessCheck {
  Cached,  // Reads the process list only when the last reading is a minute old.
  Force,
};

// Whether the daemon's process runs, as the process list shows it.
// Owner: the guardian service.
// Threads: the timer thread calls Check, ForgetCheck and ForgetPid; any thread reads the texts and
// the time of the last listing.
// Lifetime: shell and clock outlive it.
class TDaemonProcess {
 public:
  // What the shell throws ends a check, and leaves what was known before. Lines of processes that
  // are its own are passed over.
  TDaemonProcess(TShell shell, TIsOwnProcess isOwn, TClock& clock);
  TDaemonProcess(const TDaemonProcess&) = delete;
  TDaemonProcess& operator=(const TDaemonProcess&) = delete;

  // Returns whether the daemon runs. Blocks for at most 10 seconds. Throws what the shell throws.
  bool Check(TProcessCheck mode);

  // Makes the next Check read afresh.
  void ForgetCheck() {
    FTickThread.Check();
    FLastCheckAt = 0;
  }

  // Makes Pid empty, when the process is known to be gone.
  void ForgetPid() {
    FTickThread.Check();
    FPid.Set({});
  }

  // Empty when the daemon is not running.
  [[nodiscard]] std::string Pid() const { return FPid.Copy(); }

  // The text of the last listing as ps printed it, clipped to kShownOutputBytes.
  [[nodiscard]] TSharedText::TText LastListing() const { return FLastListing.Get(); }

  // When it was taken, an instant of TClock::SteadyNow; zero before the first.
  [[nodiscard]] TDateTime LastListingAt() const { return FLastListingAt.load(); }

 private:
  const TShell FShell;
  const TIsOwnProcess FIsOwn;
  TClock& FClock;

  // Timer thread only.
  TThreadChecker FTickThread;
  TDateTime FLastCheckAt = 0;
  bool FSeenRunning = false;
  TPsOptions FPsOptions = TPsOptions::Columns;

  // Written by the timer thread, read by pages.
  TSharedText FPid;
  TSharedText FLastListing;
  std::atomic<TDateTime> FLastListingAt = 0;
};

}  // namespace guardian
