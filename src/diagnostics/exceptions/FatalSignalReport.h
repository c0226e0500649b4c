#pragma once

#include <string>

namespace guardian {

// The last words of the process: on SEGV, ABRT, BUS, FPE and ILL a short report goes to the
// exceptions log, then the signal ends the process as it would have without us. The report names
// the signal, the place of the fault, the thread with its current checkpoint, and the stack. It is
// made of async-signal-safe calls only and is written in parts, the surest first: a fault or a hang
// in a later part leaves the earlier ones.
//
// A signal that somebody else handles already, as the sanitizers do, is left to them. Threads of
// TThread have a stack of their own for it and are reported even when their stack has overflowed.
// Owner: process-wide; the start of the exception reports installs them, their stop removes them.
// Threads: the main thread calls the operations, and has memory for its handlers from the first
// installation on.

void InstallFatalSignalReports() noexcept;
void RemoveFatalSignalReports() noexcept;

// The file that the reports are appended to; empty for none. May be called while installed.
void SetFatalSignalLog(const std::string& fileName) noexcept;

}  // namespace guardian
