#include "simulator/StandInDaemon.h"

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string>
#include <utility>

#include "common/Clock.h"
#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "simulator/EventLog.h"

namespace guardian {
namespace {

constexpr std::chrono::milliseconds kRound{50};
constexpr std::int64_t kFaultsPeriodMs = 500;

TFileDescriptor OpenSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  TFileDescriptor descriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!descriptor) throw ESystemError("signalfd", "SIGTERM", errno);
  return descriptor;
}

}  // namespace

TStandInDaemon::TStandInDaemon(THome home, TPidFile pidFile)
    : FHome(std::move(home)),
      FPidFile(std::move(pidFile)),
      FSignals(OpenSignals()),
      FScheduler(FHome) {
  FPidFile.Enter();
  LogEvent(FHome, "Started, PID " + std::to_string(::getpid()));
}

TStandInDaemon::~TStandInDaemon() {
  FPidFile.Clear();
  LogEvent(FHome, "Ended, PID " + std::to_string(::getpid()));
}

void TStandInDaemon::Run() {
  std::int64_t nextLookTick = 0;
  while (FHome.Exists()) {
    if (SystemTickCount() >= nextLookTick) {
      FollowFaults();
      nextLookTick = SystemTickCount() + kFaultsPeriodMs;
    }
    FScheduler.Follow(FFaults);
    CheckSynchronize(kRound);
    if (SignalArrived() && EndsBySignal()) return;
  }
}

bool TStandInDaemon::SignalArrived() const {
  pollfd arrived{FSignals.Get(), POLLIN, 0};
  return ::poll(&arrived, 1, 0) > 0;
}

bool TStandInDaemon::EndsBySignal() {
  signalfd_siginfo signal{};
  if (::read(FSignals.Get(), &signal, sizeof signal) != sizeof signal) return false;
  const bool isTerm = signal.ssi_signo == static_cast<unsigned>(SIGTERM);
  const std::string text =
      std::string(isTerm ? "SIGTERM" : "SIGINT") + " from PID " + std::to_string(signal.ssi_pid);
  // Reads the file again, since the order may have come after the last look.
  FollowFaults();
  const bool isIgnored = isTerm && FFaults.Has(TFault::IgnoreTerm);
  LogEvent(FHome, text + (isIgnored ? " ignored" : ""));
  return !isIgnored;
}

void TStandInDaemon::FollowFaults() {
  const TFaults before = std::exchange(FFaults, ReadFaults(FHome));
  for (const TFault fault : before.Ordered) {
    if (!FFaults.Has(fault)) ApplyFault(fault, false);
  }
  for (const std::string& word : FFaults.UnknownWords) {
    if (!before.HasUnknown(word)) LogEvent(FHome, "Unknown fault: " + word);
  }
  for (const TFault fault : FFaults.Ordered) {
    if (!before.Has(fault)) ApplyFault(fault, true);
  }
}

// Other faults than the crash need no action here: each command reads the file itself, and the
// scheduler is told of all faults.
void TStandInDaemon::ApplyFault(TFault fault, bool isOrdered) {
  LogEvent(FHome,
           std::string(isOrdered ? "Fault begins: " : "Fault ends: ").append(FaultWord(fault)));
  if (fault == TFault::Crash && isOrdered) Crash();
}

void TStandInDaemon::Crash() const {
  try {
    WithdrawFault(FHome, TFault::Crash);
  } catch (const std::exception& error) {
    LogEvent(FHome, std::string("The crash will come again: ") + error.what());
  }
  const rlimit noCore{0, 0};
  ::setrlimit(RLIMIT_CORE, &noCore);
  std::abort();
}

}  // namespace guardian
