#pragma once

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/types.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "common/Console.h"
#include "common/Settings.h"
#include "common/Thread.h"
#include "diagnostics/KZCheckpoints.h"
#include "guardian/process.h"
#include "support/ChildProcess.h"
#include "support/Eventually.h"
#include "support/OpenDescriptors.h"
#include "support/TempFolder.h"

// What the tests of commands and of the daemon's birth share, with the includes that both need.

namespace guardian {

inline constexpr int kHangLimitSec = 60;  // Bounds failure only.
// The exit code of a child that this machine does not let run.
inline constexpr int kNotAllowedHere = 77;

// From now on the system call fails in this process, as on a machine that lacks or forbids it.
// Returns whether that could be arranged.
inline bool MakeCallFail(long number, int error) {
  sock_filter filter[] = {
      {BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<std::uint32_t>(offsetof(seccomp_data, nr))},
      {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, static_cast<std::uint32_t>(number)},
      {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error)},
      {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
  };
  sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

struct TRun {
  std::string Output = "left over";
  int ExitCode = 99;
};

inline TRun RunLine(const std::string& commandLine, const std::string& tempFileName = "",
                    int timeoutSec = kHangLimitSec) {
  TRun run;
  RunShellCmdWithOutput(run.Output, commandLine, timeoutSec, false, tempFileName, run.ExitCode);
  return run;
}

// Runs a registered child function of this program; its standard output goes to the named file.
inline TRun RunChild(const std::string& arguments, const std::string& outputFile = "") {
  const std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  return RunLine("'" + self + "' --child " + arguments, outputFile);
}

}  // namespace guardian
