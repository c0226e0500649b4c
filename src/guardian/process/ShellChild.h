#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "common/FileDescriptor.h"
#include "guardian/process/ShellEnding.h"

namespace guardian {

class TCancellation;

// One program, mostly a shell, as a child process that leads a process group of its own. It begins
// with default signal dispositions, an empty signal mask and descriptors 0, 1 and 2 alone. Owner:
// one run of a command, which starts it at most once. Threads: not shared; whoever starts it waits
// for it. Lifetime: the destructor kills the group of a child that was not waited for.
class TShellChild {
 public:
  TShellChild() = default;
  ~TShellChild();
  TShellChild(const TShellChild&) = delete;
  TShellChild& operator=(const TShellChild&) = delete;

  // Each starts the program that the first argument names by its path, and returns 0 or the error
  // number.

  // Standard input is "/dev/null", standard output and error are the given descriptor. A program
  // that cannot be executed is an error.
  [[nodiscard]] int Spawn(const std::vector<std::string>& arguments, int output);

  // Standard handles as in this process. A program that cannot be executed is a child that ends
  // with exit status 127.
  [[nodiscard]] int Fork(const std::vector<std::string>& arguments);

  // Blocks until the program has ended, or the ending has come to GiveUp; asks it once a round,
  // with the bytes written so far. A group that is being ended is waited for as a whole. A program
  // that was given up is reaped when a later one is started.
  void Wait(TShellEnding& ending, const std::function<std::uint64_t()>& outputBytes,
            const TCancellation* cancellation);

  // Its status, 128 + signal when a signal ended it; -1 when it has not ended or its status
  // went to somebody else.
  [[nodiscard]] int ExitCode() const noexcept { return FExitCode; }

 private:
  [[nodiscard]] bool HasEnded();
  [[nodiscard]] bool GroupIsAlive() const;
  void SignalGroup(int number) const noexcept;
  void Pause(const TShellEnding& ending, const TCancellation* cancellation) const;
  void Reap() noexcept;
  void Abandon();

  pid_t FPid = 0;              // 0 when there is none, or none any more.
  TFileDescriptor FPidHandle;  // Empty where it is polled for instead.
  bool FEnded = false;         // It is a zombie, which keeps the group's number in use, or lost.
  bool FLost = false;          // Reaped by the system, where SIGCHLD is ignored.
  int FExitCode = -1;
};

}  // namespace guardian
