#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "common/FileDescriptor.h"
#include "common/ThreadChecker.h"
#include "guardian/process/ShellEnding.h"

namespace guardian {

class TCancellation;

// One program, mostly a shell, as a child process that leads a process group of its own. It begins
// with default signal dispositions, an empty signal mask and descriptors 0, 1 and 2 alone.
// Owner: one run of a command, which starts it at most once.
// Threads: one thread starts the child and waits for it.
// Lifetime: the destructor kills the group of a child that was not waited for.
class TShellChild {
 public:
  TShellChild() = default;
  ~TShellChild();
  TShellChild(const TShellChild&) = delete;
  TShellChild& operator=(const TShellChild&) = delete;

  // Spawn and Fork each start the program whose path is the first argument, and return 0 or the
  // error number.

  // The child's standard input is "/dev/null"; its standard output and error are the given
  // descriptor; its environment is this process's with the given entries, which win. A program
  // that cannot be executed is an error.
  [[nodiscard]] int Spawn(const std::vector<std::string>& arguments, int output,
                          const std::vector<std::string>& environment = {});

  // The child keeps this process's standard handles. A program that cannot be executed gives a
  // child that ends with exit status 127.
  [[nodiscard]] int Fork(const std::vector<std::string>& arguments);

  // Blocks until the program has ended or the ending says GiveUp; the ending is asked once a round,
  // with the bytes written so far. While the group is being ended, all of its processes are waited
  // for. A program that was given up is reaped when a later one is started.
  void Wait(TShellEnding& ending, const std::function<std::uint64_t()>& outputBytes,
            const TCancellation* cancellation);

  // The program's exit status; 128 + signal when a signal ended it; -1 when it has not ended, or
  // when the system reaped it, as it does where SIGCHLD is ignored.
  [[nodiscard]] int ExitCode() const noexcept { return FExitCode; }

 private:
  [[nodiscard]] bool HasEnded();
  [[nodiscard]] bool GroupIsAlive() const;
  void SignalGroup(int number) const noexcept;
  void Pause(const TShellEnding& ending, const TCancellation* cancellation) const;
  void Reap() noexcept;
  void Abandon();

  TThreadChecker FThread;
  // The child; 0 before the start and after it was reaped or given up.
  pid_t FPid = 0;
  // Readable from the child's end on; empty on a kernel without such handles and after Fork.
  TFileDescriptor FPidHandle;
  // The child has ended: it is a zombie, which keeps the group's number in use, or it is lost.
  bool FEnded = false;
  // The system has reaped the child.
  bool FLost = false;
  int FExitCode = -1;
};

}  // namespace guardian
