#pragma once

#include <string>
#include <vector>

#include "guardian/process/BecomeDaemon.h"  // IWYU pragma: export

namespace guardian {

class TCancellation;

// Runs the command line by "/bin/sh", in a process group of its own, and waits for the shell to
// end, for at most timeoutSec seconds (not at all when 0 or less). Time in which this process
// itself stood still, as on a sleeping machine, does not count. Processes that the shell leaves in
// the background are not waited for and not touched.
//
//   std::string output;
//   int exitCode = 0;
//   RunShellCmdWithOutput(output, "df -k /", 5, false, "", exitCode);
//   if (exitCode == 0) Show(output);
//
// A command that outlives its time, or writes more than 128 MiB, is ended: its process group gets
// SIGTERM, two seconds later SIGKILL. Cancellation does the same with half a second between, so
// that the call returns within a second; a run that is cancelled before it starts does not start.
// A process that left the group by setsid stays alive.
//
// output: everything that the command wrote to standard output and standard error, at most 16 MiB,
// also of a command that was ended. The output of the last command of the line stands behind that
// of all others.
// exitCode: the shell's status; 128 + signal when a signal ended it; -1 when the command could not
// be run or was ended here.
// tempFileName: the file that catches the last command's output; it is emptied first and left in
// place. When empty, a file in Settings().TempDirectory is used and removed before the return; in
// "/dev/shm" when that is "/tmp", so that the output waits for no disk. For a temp directory that
// would break out of double quotes "/tmp" is used; such a file name is refused.
//
// A command that could not be run (no temporary file, no process, no shell) gives an empty output
// and exit code -1; with raiseOnFailure it throws KZException "Error executing " + the command
// line, the temporary file and the system's reason. A command that fails inside the shell is no
// failure. With Settings().PlainSystemCall the shell is forked instead of spawned: it then keeps
// this process's standard handles, so that only the last command's output is caught, and a missing
// shell is exit code 127. The cancellation must outlive the call.
// Threads: any; blocks as said.
void RunShellCmdWithOutput(std::string& output, const std::string& commandLine, int timeoutSec,
                           bool raiseOnFailure, const std::string& tempFileName, int& exitCode,
                           const TCancellation* cancellation = nullptr);

// How a program ended. ExitCode is 128 + signal when a signal ended it, and -1 when it could not be
// run or was ended here. ErrorNumber is the reason when it could not be run, otherwise 0.
struct TProgramEnd {
  int ExitCode = -1;
  int ErrorNumber = 0;
};

// Runs the program whose path is the first argument, without a shell; nothing in the arguments is
// interpreted. Standard input, output and error are "/dev/null". Its environment is that of this
// process with the given entries, as in "NAME=value", which win. It is waited for and ended as a
// shell command is. Never throws for a failed run. Threads: any; blocks as said above.
[[nodiscard]] TProgramEnd RunProgram(const std::vector<std::string>& arguments, int timeoutSec,
                                     const TCancellation* cancellation = nullptr,
                                     const std::vector<std::string>& environment = {});

}  // namespace guardian
