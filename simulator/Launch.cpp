#include "simulator/Launch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "common/Exceptions.h"
#include "common/FileDescriptor.h"

namespace guardian {
namespace {

constexpr int kReadyTimeoutMsec = 15'000;
constexpr std::size_t kMaxReportBytes = 4096;
constexpr std::string_view kReady = "ready";

struct TPipe {
  TFileDescriptor Reader;
  TFileDescriptor Writer;
};

TPipe OpenPipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) throw ESystemError("pipe2", "daemon report", errno);
  return {TFileDescriptor(ends[0]), TFileDescriptor(ends[1])};
}

pid_t Fork() {
  const pid_t pid = ::fork();
  if (pid == -1) throw ESystemError("fork", "daemon", errno);
  return pid;
}

void DetachFromSurroundings() {
  ::umask(022);
  if (::chdir("/") != 0) throw ESystemError("chdir", "/", errno);
  const TFileDescriptor null(::open("/dev/null", O_RDWR | O_CLOEXEC));
  if (!null) throw ESystemError("open", "/dev/null", errno);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::dup2(null.Get(), standard) == -1) throw ESystemError("dup2", "/dev/null", errno);
  }
}

// Only the first report is sent.
void Report(TFileDescriptor& writer, const std::string& error) {
  if (!writer) return;
  [[maybe_unused]] const int lost =
      WriteAll(writer.Get(), error.empty() ? kReady : std::string_view(error));
  writer.Close();
}

// The second fork keeps the daemon from ever getting a terminal: it is no session leader.
[[noreturn]] void RunDetached(TFileDescriptor writer,
                              const std::function<void(const TReportReady&)>& work) {
  const TReportReady report = [&writer](const std::string& error) { Report(writer, error); };
  try {
    ::setsid();
    if (Fork() != 0) ::_exit(EXIT_SUCCESS);
    DetachFromSurroundings();
    work(report);
  } catch (...) {
    report(CurrentExceptionMessage());
    ::_exit(EXIT_FAILURE);
  }
  ::_exit(EXIT_SUCCESS);
}

std::string AwaitReport(const TFileDescriptor& reader) {
  pollfd arrived{reader.Get(), POLLIN, 0};
  if (RetryOnEintr([&] { return ::poll(&arrived, 1, kReadyTimeoutMsec); }) == 0) {
    return "the daemon did not report within 15 seconds";
  }
  std::string text;
  if (const int error = ReadToEnd(reader.Get(), kMaxReportBytes, text); error != 0) {
    return SystemErrorText(error);
  }
  if (text.empty()) return "the daemon ended before it was ready";
  return text == kReady ? std::string() : text;
}

}  // namespace

void CloseInheritedDescriptors() noexcept { ::close_range(3, ~0U, 0); }

std::string LaunchDaemon(const std::function<void(const TReportReady&)>& work) {
  TPipe pipe = OpenPipe();
  const pid_t child = Fork();
  if (child == 0) {
    pipe.Reader.Close();
    RunDetached(std::move(pipe.Writer), work);
  }
  pipe.Writer.Close();
  RetryOnEintr([&] { return ::waitpid(child, nullptr, 0); });
  return AwaitReport(pipe.Reader);
}

}  // namespace guardian
