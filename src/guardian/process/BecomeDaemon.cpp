#include "guardian/process/BecomeDaemon.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Console.h"
#include "common/Exceptions.h"
#include "common/FileDescriptor.h"
#include "common/Settings.h"
#include "diagnostics/KZCheckpoints.h"

namespace guardian {
namespace {

constexpr rlim_t kDefaultHighestDescriptor = 8192;
constexpr rlim_t kLeastHighestDescriptor = 256;
constexpr const char* kDaemonLogFile = "/var/log/vellumarkdaemon.log";

void TraceDebugHook(std::string_view text) {
  const int debugHook = Settings().DebugHook;
  if (debugHook != 0) PrintLine(std::string(text) + std::to_string(debugHook));
}

// Returns true in the child. The parent ends by _exit: its buffers, its at-exit functions and its
// objects belong to the child now.
bool ContinueInChild() {
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == -1) {
    PrintLine("Cannot fork to become daemon.");
    return false;
  }
  if (child > 0) ::_exit(0);
  return true;
}

void IgnoreHangup() {
  struct sigaction action {};
  action.sa_handler = SIG_IGN;
  const int result = ::sigaction(SIGHUP, &action, nullptr);
  if (result != 0) PrintLine("Error setting SIGHUP to \"ignore\":" + std::to_string(result));
}

int HighestDescriptorToClose() {
  rlim_t highest = kDefaultHighestDescriptor;
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    highest = limit.rlim_cur;
    if (Settings().DebugHook != 0) {
      PrintLine("rlimit.rlim_cur=" + std::to_string(limit.rlim_cur) +
                ", rlimit.rlim_max=" + std::to_string(limit.rlim_max));
    }
  }
  return static_cast<int>(std::clamp<rlim_t>(highest, kLeastHighestDescriptor, INT_MAX));
}

// The open descriptors; nothing when /proc is not mounted.
std::optional<std::vector<int>> OpenDescriptors() {
  DIR* const folder = ::opendir("/proc/self/fd");
  if (folder == nullptr) return std::nullopt;
  std::vector<int> descriptors;
  while (const dirent* const entry = ::readdir(folder)) {
    const std::string_view name = entry->d_name;
    int descriptor = -1;
    const auto parsed = std::from_chars(name.data(), name.data() + name.size(), descriptor);
    if (parsed.ec == std::errc() && descriptor != ::dirfd(folder)) {
      descriptors.push_back(descriptor);
    }
  }
  ::closedir(folder);
  return descriptors;
}

// Closes the descriptors from first to last, both included. Kernels before 5.9 have no close_range;
// trying a million numbers takes noticeable time, so there the open descriptors are looked up.
void CloseDescriptors(int first, int last) {
  if (::close_range(static_cast<unsigned>(first), static_cast<unsigned>(last), 0) == 0) return;
  if (const auto open = OpenDescriptors()) {
    for (const int descriptor : *open) {
      if (descriptor >= first && descriptor <= last) ::close(descriptor);
    }
    return;
  }
  constexpr int kHighestTried = 1'048'576;
  for (int number = first; number <= std::min(last, kHighestTried); ++number) ::close(number);
}

// Copies the file's descriptor over standard output instead of opening the stream anew, so that
// after a failure the old output can still be printed on. Only root may write to a new file,
// although the file-creation mask is 0.
void SendOutputToDaemonLog() {
  std::fflush(stdout);
  const TFileDescriptor file(
      ::open(kDaemonLogFile, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644));
  if (!file || ::dup2(file.Get(), STDOUT_FILENO) < 0) {
    const int error = errno;
    PrintLine("Cannot open " + std::string(kDaemonLogFile) + ": " + SystemErrorText(error));
    return;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  PrintLine("End of BecomeDaemon, fd0=" + std::to_string(STDIN_FILENO) +
            ", fd1=" + std::to_string(STDOUT_FILENO) + ", fd2=" + std::to_string(STDERR_FILENO));
}

}  // namespace

void BecomeDaemon() {
  const bool keepsHandles = Settings().DebugHook != 0;
  KZCP::Checkpoint("BecomeDaemon");
  TraceDebugHook("Becoming Daemon Before First Fork, DebugHook=");
  if (!ContinueInChild()) return;
  TraceDebugHook("Becoming Daemon Before setsid, DebugHook=");
  if (::setsid() == -1) {
    PrintLine("Call to setsid failed, cannot become daemon.");
    return;
  }
  TraceDebugHook("Becoming Daemon Before Second Fork, DebugHook=");
  if (!ContinueInChild()) return;
  ::umask(0);
  // "/" can always be entered.
  [[maybe_unused]] const int changed = ::chdir("/");
  TraceDebugHook("Becoming Daemon Before Closing Files, DebugHook=");
  IgnoreHangup();
  CloseDescriptors(keepsHandles ? STDERR_FILENO + 1 : STDIN_FILENO, HighestDescriptorToClose());
  if (keepsHandles) {
    SendOutputToDaemonLog();
  } else {
    OpenStandardHandles();
  }
  KZCP::Checkpoint("BecomeDaemonX");
}

// Each call gives the lowest number that is free. Children inherit the standard handles, so these
// are not close-on-exec; the last descriptor is none of them.
void OpenStandardHandles() {
  int null = 0;
  do {
    null = ::open("/dev/null", O_RDWR, 0666);
  } while (null >= 0 && null <= STDERR_FILENO);
  if (null > STDERR_FILENO) ::close(null);
}

}  // namespace guardian
