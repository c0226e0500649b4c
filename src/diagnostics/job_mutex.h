#pragma once

#include <cstdint>
#include <string>

#include "common/FileHandle.h"
#include "diagnostics/jobs/MutexRegistry.h"

namespace guardian {

// The job mutexes of the process: the locks that sync jobs hold for their profiles while they run.
// One guardian thread frees a job mutex whose owner has stopped passing checkpoints, another one
// reports. TMutexRegistry says what must be set before, and what callbacks may do.
//
// For other programs of the maker, those that run sync jobs: the Guardian itself registers no job
// mutex and starts neither thread.
// Owner: process-wide; the program that starts it hands CheckMutexesAtTermination to KZCP::Fini.
// Threads: any thread may call RegisterMutex and UnregisterMutex; the main thread calls the others.

// Makes the list and starts both threads. Does nothing when they run already. Throws ESystemError
// when a thread cannot be started; it can then be called again.
void StartMutexGuardian();

// Registers an open file object as a job mutex that the calling thread holds from now on. A thread
// that passes no checkpoints counts as a thread that no longer exists. Returns the index in the
// list. Does nothing and returns 0 while there is no list.
int RegisterMutex(std::string name, std::string profileName, TFileHandle handle,
                  TReportProvider reportProvider, TMutexFreedCallback onFreed,
                  std::int32_t mutexNumber);

// Removes the job mutex from the list; see TMutexRegistry::Unregister. Does nothing while there is
// no list.
void UnregisterMutex(TFileHandle handle, std::int32_t mutexNumber);

// Ends both threads after their pass under way and frees the list. When the process is
// multi-threaded and a job mutex is still open, it writes a run report, closes the first entry only
// and throws KZException "Mutexes still open: " and the list; it can then be called again.
void CheckMutexesAtTermination();

}  // namespace guardian
