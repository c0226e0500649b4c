#include "guardian/DaemonProcess.h"

#include <utility>

#include "common/Texts.h"

namespace guardian {

TDaemonProcess::TDaemonProcess(TShell shell, TIsOwnProcess isOwn, TClock& clock)
    : FShell(std::move(shell)), FIsOwn(std::move(isOwn)), FClock(clock) {}

bool TDaemonProcess::Check(TProcessCheck mode) {
  FTickThread.Check();
  constexpr int kPsTimeoutSec = 5;
  const bool fresh = FLastCheckAt > FClock.SteadyNow() - kMinute;
  if (mode == TProcessCheck::Cached && fresh) return FSeenRunning;
  TProcessListing listing = ListDaemonProcesses(FShell, kPsTimeoutSec, FPsOptions);
  FPsOptions = listing.Options;
  std::string pid = DaemonPidIn(listing.Text, FIsOwn);
  FSeenRunning = !pid.empty();
  FPid.Set(std::move(pid));
  FLastListing.Set(Clipped(listing.Text, kShownOutputBytes));
  FLastCheckAt = FClock.SteadyNow();
  FLastListingAt.store(FLastCheckAt);
  return FSeenRunning;
}

}  // namespace guardian
