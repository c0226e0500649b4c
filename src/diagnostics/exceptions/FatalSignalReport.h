#pragma once

#include <string>

namespace guardian {

// The last words of the process: on SEGV, ABRT, BUS, FPE and ILL a short report goes to the
// exceptions log, then the signal ends the process as it would have without a handler. The report
// names the signal, the place of the fault, the thread with its current checkpoint, and the stack.
// It is written in parts, the safest first: a fault or a hang in a later part leaves the earlier
// parts in the log, and SIGALRM ends a process that has not come to its end after 20 seconds. All
// but the last part is made of async-signal-safe calls only.
//
// A signal that has a handler already, such as the sanitizers', keeps it. Threads of TThread have a
// second stack for the handler and are reported even when their stack has overflowed; the main
// thread gets one at the first installation.
// Owner: process-wide; the start of the exception reports installs the handlers, their stop removes
// them.
// Threads: the main thread calls these functions.

void InstallFatalSignalReports() noexcept;
void RemoveFatalSignalReports() noexcept;

// Sets the file that the reports are appended to; an empty name for no reports. May be called while
// the handlers are installed.
void SetFatalSignalLog(const std::string& fileName) noexcept;

// For a process that is ending for a fault of its own: sets SIGALRM, which nothing handles, to end
// it after 20 seconds. Async-signal-safe. Threads: the one that reports the fault.
void LimitLastWords() noexcept;

}  // namespace guardian
