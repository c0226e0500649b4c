#pragma once

namespace guardian {

// Detaches the process from its terminal by the classic double fork. Returns in the grandchild,
// with file-creation mask 0, working directory "/" and SIGHUP ignored. Every descriptor from 0 to
// the open-files limit has been closed, and 0, 1 and 2 are "/dev/null". The process that was
// started and its first child end with exit status 0 and run nothing at exit.
//
// With Settings().DebugHook not zero it prints its progress, keeps descriptors 0, 1 and 2, and at
// the end sends standard output to "/var/log/vellumarkdaemon.log".
//
// Never throws: each failure is a printed line, and the call returns in the state reached. After a
// failed first fork that is the process that was started; after a failed setsid or second fork it
// is the first child.
// Threads: the main thread, before any other thread exists and before BindMainThread or anything
// else has opened a descriptor that is needed later.
void BecomeDaemon();

// Opens "/dev/null" for those of the descriptors 0, 1 and 2 that are closed, so that nothing else
// that is opened gets such a number and is written to by accident.
// Threads: the main thread, before anything else is opened.
void OpenStandardHandles();

}  // namespace guardian
