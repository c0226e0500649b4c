#pragma once

#include <signal.h>

#include <array>

namespace guardian {

// The signals by which a process ends for a fault of its own. No thread of ours blocks them: a
// blocked fatal signal kills the process without running its handler.
inline constexpr std::array kFatalSignals{SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL};

// Memory for the signal handlers of the calling thread, so that they run also when the thread's
// stack has overflowed. Does nothing where the thread has such memory already, or where the system
// has none.
// Owner: the thread's entry function, as a local object.
// Threads: its thread only.
class TAlternateSignalStack {
 public:
  TAlternateSignalStack() noexcept;
  ~TAlternateSignalStack();
  TAlternateSignalStack(const TAlternateSignalStack&) = delete;
  TAlternateSignalStack& operator=(const TAlternateSignalStack&) = delete;

 private:
  void* FMemory = nullptr;  // Null when none was set.
};

}  // namespace guardian
