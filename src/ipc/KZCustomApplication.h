#pragma once

#include <signal.h>

#include <chrono>
#include <functional>
#include <list>

#include "common/Cancellation.h"

namespace guardian {

enum class TApplicationState { Absent, Running, Terminating };

// The process's application object: the main thread's loop, and the one request to end it.
// Owner: the entry, which creates it and frees it at its end; at most one exists at a time.
// Threads: the main thread creates it, destroys it and calls Initialize and Run; any thread, and
// signal handlers, may call the rest.
// Lifetime: outlives every thread that calls CurrentApplication(); a thread that may still run
// later asks ApplicationState() instead.
class TKZCustomApplication {
 public:
  // Throws KZException when there is an application already, ESystemError when the system has no
  // more descriptors.
  TKZCustomApplication();

  // Restores what the signals did before Initialize.
  ~TKZCustomApplication();
  TKZCustomApplication(const TKZCustomApplication&) = delete;
  TKZCustomApplication& operator=(const TKZCustomApplication&) = delete;

  // Makes SIGINT and SIGTERM call Terminate, ignores SIGPIPE and gives SIGCHLD its default; other
  // signals are left alone. Throws ESystemError.
  void Initialize();

  // Runs synchronise requests until Terminate is called; returns at once when it was. Before each
  // wait for one, and so once in the longest round at least, it calls onRound, which may be empty.
  void Run(const std::function<void()>& onRound = {},
           std::chrono::milliseconds longestRound = kLongestRound);

  // Terminate wakes the wait; the bound only keeps a lost wake-up from lasting.
  static constexpr std::chrono::seconds kLongestRound{10};

  // Ends Run for good; there is no way back. Async-signal-safe.
  void Terminate() noexcept;
  [[nodiscard]] bool Terminated() const noexcept { return FStopping.IsCancelled(); }

  // Cancelled by Terminate, for waits that are to end with the application.
  [[nodiscard]] const TCancellation& Stopping() const noexcept { return FStopping; }

 private:
  // Sets a signal's disposition, and restores the previous one at its end.
  class TSignalDisposition {
   public:
    TSignalDisposition(int signalNumber, void (*handler)(int));
    ~TSignalDisposition();
    TSignalDisposition(const TSignalDisposition&) = delete;
    TSignalDisposition& operator=(const TSignalDisposition&) = delete;

   private:
    const int FSignalNumber;
    struct sigaction FPrevious {};
  };

  TCancellation FStopping;
  std::list<TSignalDisposition> FSignals;
};

// The application, or null before it is created and after it is freed.
[[nodiscard]] TKZCustomApplication* CurrentApplication() noexcept;

// Safe in any thread, also while the application is being freed.
[[nodiscard]] TApplicationState ApplicationState() noexcept;

}  // namespace guardian
