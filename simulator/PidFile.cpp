#include "simulator/PidFile.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "common/Clock.h"
#include "common/Exceptions.h"

namespace guardian {
namespace {

constexpr int kAcquireTries = 100;
constexpr std::chrono::milliseconds kAcquirePause{50};
constexpr std::size_t kMaxNumberBytes = 32;

std::optional<pid_t> ReadPid(int descriptor) {
  std::string text;
  if (ReadToEnd(descriptor, kMaxNumberBytes, text) != 0) return std::nullopt;
  pid_t pid = 0;
  const char* const end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, pid);
  const bool isNumberLine = error == std::errc() && std::string_view(rest, end) == "\n";
  if (!isNumberLine || pid <= 0) return std::nullopt;
  return pid;
}

bool Lives(pid_t pid) { return ::kill(pid, 0) == 0 || errno == EPERM; }

// Uses the system call itself: the library's header for it lacks C linkage in the oldest release we
// build on.
TFileDescriptor OpenProcess(pid_t pid) {
  return TFileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

bool SendSignal(const TFileDescriptor& process, int signal) {
  return ::syscall(SYS_pidfd_send_signal, process.Get(), signal, nullptr, 0) == 0;
}

TStopOutcome WaitForEnd(const TFileDescriptor& process, std::chrono::milliseconds timeout) {
  const std::int64_t deadline = SystemClock().TickCount() + timeout.count();
  while (true) {
    const std::int64_t left = deadline - SystemClock().TickCount();
    if (left <= 0) return TStopOutcome::StillRunning;
    pollfd ended{process.Get(), POLLIN, 0};
    if (::poll(&ended, 1, static_cast<int>(left)) > 0) return TStopOutcome::Ended;
  }
}

}  // namespace

TPidFile::TPidFile(std::string path, TFileDescriptor file)
    : FPath(std::move(path)), FFile(std::move(file)) {}

std::optional<TPidFile> TPidFile::TryLock(const std::string& path) {
  TFileDescriptor file(
      RetryOnEintr([&] { return ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644); }));
  if (!file) throw ESystemError("open", path, errno);
  if (RetryOnEintr([&] { return ::flock(file.Get(), LOCK_EX | LOCK_NB); }) == 0) {
    return TPidFile(path, std::move(file));
  }
  if (errno != EWOULDBLOCK) throw ESystemError("flock", path, errno);
  return std::nullopt;
}

TPidFile::TAcquired TPidFile::Acquire(const std::string& path) {
  for (int tries = 0; tries < kAcquireTries; ++tries) {
    TAcquired result{TryLock(path)};
    if (result.File) return result;
    if (const std::optional<pid_t> holder = Holder(path); holder) {
      result.Holder = *holder;
      return result;
    }
    SystemClock().Sleep(kAcquirePause);
  }
  throw SoftException(path + " is locked and names no running process");
}

// A free file is locked for a moment by this look, which is why Acquire tries more than once.
std::optional<pid_t> TPidFile::Holder(const std::string& path) {
  const TFileDescriptor file(
      RetryOnEintr([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
  if (!file) return std::nullopt;
  if (RetryOnEintr([&] { return ::flock(file.Get(), LOCK_SH | LOCK_NB); }) == 0) {
    return std::nullopt;
  }
  const std::optional<pid_t> pid = ReadPid(file.Get());
  return pid && Lives(*pid) ? pid : std::nullopt;
}

void TPidFile::Enter() const {
  const std::string line = std::to_string(::getpid()) + "\n";
  if (::ftruncate(FFile.Get(), 0) != 0) throw ESystemError("ftruncate", FPath, errno);
  if (const int error = WriteAll(FFile.Get(), line); error != 0) {
    throw ESystemError("write", FPath, error);
  }
}

void TPidFile::Clear() const noexcept {
  [[maybe_unused]] const int stale = ::ftruncate(FFile.Get(), 0);
}

std::optional<TStopOutcome> TerminateHolder(const std::string& path, pid_t holder,
                                            std::chrono::milliseconds timeout) {
  const TFileDescriptor process = OpenProcess(holder);
  if (!process && errno != ESRCH) throw ESystemError("pidfd_open", std::to_string(holder), errno);
  // Now that the handle is open, ask again: if the holder is the same, the handle is that
  // process's.
  if (!process || TPidFile::Holder(path) != holder) return std::nullopt;
  if (!SendSignal(process, SIGTERM)) {
    if (errno == ESRCH) return std::nullopt;
    throw ESystemError("pidfd_send_signal", std::to_string(holder), errno);
  }
  return WaitForEnd(process, timeout);
}

}  // namespace guardian
