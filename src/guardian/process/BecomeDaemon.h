#pragma once

namespace guardian {

// Detaches the process from its terminal by the classic double fork. Returns in the grandchild,
// with file-creation mask 0, working directory "/", SIGHUP ignored and every descriptor from 0 up
// to the open-files limit closed; 0, 1 and 2 are "/dev/null" then. The processes in between end
// with exit status 0 and run nothing at exit.
// With Settings().DebugHook not zero it prints its progress, keeps 0, 1 and 2, and at last sends
// standard output to "/var/log/vellumarkdaemon.log".
// Never throws: each failure is a printed line, and the process goes on in the state reached; after
// a failed first fork as the process that was started, after a failed setsid or second fork as its
// first child.
// Threads: main thread, before any other thread exists, and before anything holds a descriptor that
// it means to keep, BindMainThread included.
void BecomeDaemon();

}  // namespace guardian
