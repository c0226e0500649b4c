#pragma once

#include <cstdint>
#include <string>

#include "common/FileHandle.h"
#include "diagnostics/jobs/MutexRegistry.h"

namespace guardian {

// The job mutexes of the process: the locks that sync jobs hold for their profiles while they run.
// One guardian thread frees those whose owner has stopped passing checkpoints, another reports.
//
// Absent until StartMutexGuardian; the Guardian itself never starts it. What must be set before,
// and what callbacks may do, stands with TMutexRegistry. Owner: process-wide; what starts it also
// calls KZCP::Fini, which calls CheckMutexesAtTermination. Threads: RegisterMutex and
// UnregisterMutex by any thread; the others by the main thread.

// Makes the list and starts both threads. Does nothing when it has run already. Throws ESystemError
// when a thread cannot be started; it can then be called again.
void StartMutexGuardian();

// Registers an open file object as a job mutex that the calling thread holds from now on; a thread
// that passes no checkpoints counts as one that no longer exists. Returns the index in the list.
// Does nothing and returns 0 while there is no list.
int RegisterMutex(std::string name, std::string profileName, TFileHandle handle,
                  TReportProvider reportProvider, TMutexFreedCallback onFreed,
                  std::int32_t mutexNumber);

// Takes out every job mutex with the handle, or where either handle is 0 with the number; see
// TMutexRegistry::Unregister. Does nothing while there is no list.
void UnregisterMutex(TFileHandle handle, std::int32_t mutexNumber);

// Ends both threads after their pass under way and frees the list. With a job mutex still open it
// writes a run report and, when the process is multi-threaded, throws KZException "Mutexes still
// open: " and the list; it then has closed the first entry only, and can be called again.
void CheckMutexesAtTermination();

enum class TThreading { Single, Multi };

// The check of a registry whose guardian threads have ended: what CheckMutexesAtTermination does
// after them.
void CloseMutexesAtTermination(TMutexRegistry& registry, TThreading threading);

}  // namespace guardian
