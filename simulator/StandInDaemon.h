#pragma once

#include "common/FileDescriptor.h"
#include "simulator/Faults.h"
#include "simulator/Home.h"
#include "simulator/PidFile.h"
#include "simulator/StandInScheduler.h"

namespace guardian {

// The daemon's life: it obeys signals, follows the orders for faults and runs its scheduler.
// Owner: the start command's last child, or the run command.
// Threads: the process's main thread.
class TStandInDaemon {
 public:
  // Blocks SIGTERM and SIGINT, which Run receives, and enters the process into the pid file. Throws
  // ESystemError.
  TStandInDaemon(THome home, TPidFile pidFile);
  ~TStandInDaemon();
  TStandInDaemon(const TStandInDaemon&) = delete;
  TStandInDaemon& operator=(const TStandInDaemon&) = delete;

  // Returns when SIGTERM or SIGINT ends the daemon or its home no longer exists. Reads the faults
  // file twice a second.
  void Run();

 private:
  [[nodiscard]] bool SignalArrived() const;
  [[nodiscard]] bool EndsBySignal();
  void FollowFaults();
  void ApplyFault(TFault fault, bool isOrdered);
  void Crash() const;

  const THome FHome;
  const TPidFile FPidFile;
  TFileDescriptor FSignals;
  TFaults FFaults;
  TStandInScheduler FScheduler;
};

}  // namespace guardian
