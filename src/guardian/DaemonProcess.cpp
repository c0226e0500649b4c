#include "guardian/DaemonProcess.h"

#include <utility>

#include "common/Texts.h"

namespace guardian {

TDaemonProcess::TDaemonProcess(TShell shell, TClock& clock)
    : FShell(std::move(shell)), FClock(clock) {}

bool TDaemonProcess::Check(TProcessCheck mode) {
  FTickThread.Check();
  constexpr int kPsTimeoutSec = 5;
  const bool fresh = FLastCheckAt > FClock.SteadyNow() - kMinute;
  if (mode == TProcessCheck::Cached && fresh) return FSeenRunning;
  TProcessListing listing = ListDaemonProcesses(FShell, kPsTimeoutSec, FPsOptions);
  FPsOptions = listing.Options;
  std::string pid = DaemonPidIn(listing.Text);
  FSeenRunning = !pid.empty();
  FPid.Set(std::move(pid));
  FLastListing.Set(Clipped(listing.Text, kShownOutputBytes));
  FLastCheckAt = FClock.SteadyNow();
  FLastListingAt.store(FLastCheckAt);
  return FSeenRunning;
}

}  // namespace guardian
