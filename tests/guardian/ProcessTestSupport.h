#pragma once

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "common/Clock.h"
#include "guardian/process.h"
#include "support/Eventually.h"
#include "support/OpenDescriptors.h"

namespace guardian {

inline constexpr int kHangLimitSec = 60;  // Bounds failure only.

inline std::string OwnPath() { return std::filesystem::read_symlink("/proc/self/exe").string(); }

// A zombie that nobody reaps yet counts as gone.
inline bool IsAlive(pid_t pid) {
  std::string stat;
  std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/stat"), stat);
  return !stat.empty() && stat.find(") Z ") == std::string::npos;
}

// From now on the system call fails in this process, as on a machine that lacks or forbids it; with
// a first argument only the calls that pass it. Returns whether that could be arranged.
inline bool MakeCallFail(long number, int error, std::uint32_t firstArgument = 0) {
  const auto offset = [](std::size_t bytes) { return static_cast<std::uint32_t>(bytes); };
  const std::uint8_t skipArgument = firstArgument == 0 ? 2 : 0;
  sock_filter filter[] = {
      {BPF_LD | BPF_W | BPF_ABS, 0, 0, offset(offsetof(seccomp_data, nr))},
      {BPF_JMP | BPF_JEQ | BPF_K, skipArgument, 3, static_cast<std::uint32_t>(number)},
      {BPF_LD | BPF_W | BPF_ABS, 0, 0, offset(offsetof(seccomp_data, args))},
      {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, firstArgument},
      {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error)},
      {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
  };
  sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

struct TRun {
  std::string Output;
  int ExitCode = 99;
};

inline TRun RunLine(const std::string& commandLine, const std::string& tempFileName = "") {
  TRun run{"left over", 99};
  RunShellCmdWithOutput(run.Output, commandLine, kHangLimitSec, false, tempFileName, run.ExitCode);
  return run;
}

}  // namespace guardian
