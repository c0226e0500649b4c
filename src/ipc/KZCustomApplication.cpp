#include "ipc/KZCustomApplication.h"

#include <atomic>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <string>

#include "common/Clock.h"
#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exception_report.h"

namespace guardian {
namespace {

// Atomic: read by any thread and by the signal handlers.
std::atomic<TKZCustomApplication*> gApplication = nullptr;
// Atomic, and outside the object, so that a thread may ask while the object is being freed.
std::atomic<TApplicationState> gState = TApplicationState::Absent;

static_assert(std::atomic<TKZCustomApplication*>::is_always_lock_free &&
              std::atomic<TApplicationState>::is_always_lock_free);

void TerminateOnSignal(int /*signalNumber*/) {
  if (TKZCustomApplication* application = gApplication.load()) application->Terminate();
}

}  // namespace

TKZCustomApplication::TKZCustomApplication() {
  assert(IsMainThread());
  TKZCustomApplication* none = nullptr;
  if (!gApplication.compare_exchange_strong(none, this)) {
    throw KZException("There is an application object already.");
  }
  gState.store(TApplicationState::Running);
}

TKZCustomApplication::~TKZCustomApplication() {
  assert(IsMainThread());
  FSignals.clear();
  gState.store(TApplicationState::Absent);
  gApplication.store(nullptr);
}

void TKZCustomApplication::Initialize() {
  assert(IsMainThread());
  if (!FSignals.empty()) return;
  FSignals.emplace_back(SIGINT, &TerminateOnSignal);
  FSignals.emplace_back(SIGTERM, &TerminateOnSignal);
  FSignals.emplace_back(SIGPIPE, SIG_IGN);
  // If it were ignored, as a parent may leave it, the exit codes of all children would be lost.
  FSignals.emplace_back(SIGCHLD, SIG_DFL);
}

TKZCustomApplication::TSignalDisposition::TSignalDisposition(int signalNumber, void (*handler)(int))
    : FSignalNumber(signalNumber) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  sigfillset(&action.sa_mask);
  if (::sigaction(signalNumber, &action, &FPrevious) != 0) {
    throw ESystemError("sigaction", "signal " + std::to_string(signalNumber), errno);
  }
}

TKZCustomApplication::TSignalDisposition::~TSignalDisposition() {
  ::sigaction(FSignalNumber, &FPrevious, nullptr);
}

void TKZCustomApplication::Run(const std::function<void()>& onRound,
                               std::chrono::milliseconds longestRound) {
  assert(IsMainThread());
  constexpr std::chrono::seconds kPauseAfterFailure{1};
  while (!Terminated()) {
    try {
      if (onRound) onRound();
      KZCP::Checkpoint("MainLoop:Wait");
      CheckSynchronize(longestRound);
    } catch (...) {
      HandleException(std::current_exception(), TLogToFiles::Yes, "Main loop");
      // A failure that comes again and again must not fill the log.
      SystemClock().Sleep(kPauseAfterFailure);
    }
  }
}

void TKZCustomApplication::Terminate() noexcept {
  gState.store(TApplicationState::Terminating);
  FStopping.Cancel();
  WakeMainThread();
}

TKZCustomApplication* CurrentApplication() noexcept { return gApplication.load(); }

TApplicationState ApplicationState() noexcept { return gState.load(); }

}  // namespace guardian
