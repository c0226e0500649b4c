#pragma once

#include "common/FileDescriptor.h"
#include "simulator/Faults.h"
#include "simulator/Home.h"
#include "simulator/PidFile.h"
#include "simulator/StandInScheduler.h"

namespace guardian {

// The daemon's life: it is there, obeys signals, takes orders for faults and runs its scheduler.
// Owner: the start command's last child, or the run command.
// Threads: the process's main thread.
class TStandInDaemon {
 public:
  // Blocks SIGTERM and SIGINT, which Run takes, and enters the process into the pid file. Throws
  // ESystemError.
  TStandInDaemon(THome home, TPidFile pidFile);
  ~TStandInDaemon();
  TStandInDaemon(const TStandInDaemon&) = delete;
  TStandInDaemon& operator=(const TStandInDaemon&) = delete;

  // Blocks until SIGTERM or SIGINT ends the daemon, or its home has gone. The faults file is read
  // twice a second.
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
