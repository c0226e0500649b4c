#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "common/SharedText.h"

namespace guardian {

// What the whole process shares.
// Owner: process-wide, see Settings().
// Threads: texts are replaced whole and read by any thread; switches are atomics because each is
// independent of the others. CommandLine and OwnExecutablePath are set by InitSettings before any
// thread exists and are constant from then on.
struct TSettings {
  std::vector<std::string> CommandLine;  // From the program path (index 0) on.
  std::string OwnExecutablePath;         // Full path, symbolic links resolved.

  TSharedText MutexDirectory;         // Where named mutexes live; empty until the handshake.
  TSharedText LogDirectory;           // The daemon's logs; empty until the handshake.
  TSharedText TempDirectory{"/tmp"};  // TMPDIR, or "/tmp".

  // The daemon's scheduler pipe; set before the Guardian runs.
  std::string SchedulerPipeName = "vellumark$qrnd$schedulermutex";

  std::atomic<bool> DebugMode = false;        // Consistency checks, profiling, full reports.
  std::atomic<int> DebugHook = 0;             // Non-zero: BecomeDaemon keeps handles and traces.
  std::atomic<bool> ShellTrace = false;       // Records every full shell line.
  std::atomic<bool> PlainSystemCall = false;  // Shell commands by the simple runner.
  std::atomic<bool> AskingGuardian = false;   // Has asked the running Guardian over HTTP.
};

// The one object; lives from its first use to the end of the process.
[[nodiscard]] TSettings& Settings();

// Where logs and reports of the Guardian itself go: LogDirectory, TempDirectory while that is
// empty.
[[nodiscard]] std::string LogFolder();

// Fills CommandLine, OwnExecutablePath and TempDirectory. Main thread, first thing.
void InitSettings(int argc, const char* const* argv);

}  // namespace guardian
