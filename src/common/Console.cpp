#include "common/Console.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/FileDescriptor.h"

namespace guardian {
namespace {

// The pieces of one line. The first one is a line feed when the line before was cut.
constexpr int kPieces = 4;
using TPieces = std::array<iovec, kPieces>;

iovec PieceOf(std::string_view text) noexcept {
  return {.iov_base = const_cast<char*>(text.data()), .iov_len = text.size()};
}

// Every system has "/dev/null" as this device.
bool IsNullDevice(const struct stat& info) noexcept {
  return S_ISCHR(info.st_mode) && info.st_rdev == ::makedev(1, 3);
}

// Where standard error cannot be opened anew: as much as fits surely once there is room at all.
ssize_t WriteWhenThereIsRoom(const TPieces& pieces) noexcept {
  pollfd error{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
  if (::poll(&error, 1, 0) != 1 || error.revents != POLLOUT) return -1;
  std::array<char, PIPE_BUF> start;
  std::size_t length = 0;
  for (const iovec& piece : pieces) {
    const std::size_t part = std::min(piece.iov_len, start.size() - length);
    std::memcpy(start.data() + length, piece.iov_base, part);
    length += part;
  }
  return RetryOnEintr([&] { return ::write(STDERR_FILENO, start.data(), length); });
}

// A pipe or a terminal. It is opened anew for the one line: the flag that forbids to wait belongs
// to the opening, which other programs share.
ssize_t WriteThroughOwnOpening(const TPieces& pieces) noexcept {
  const TFileDescriptor own(RetryOnEintr(
      [] { return ::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC); }));
  if (!own) return WriteWhenThereIsRoom(pieces);
  return RetryOnEintr([&] { return ::writev(own.Get(), pieces.data(), kPieces); });
}

// In one call, without a wait and without allocation, so that it works when little else does.
// Returns the number of bytes that were taken, -1 for none.
ssize_t WriteToStandardError(TPieces& pieces) noexcept {
  struct stat info {};
  if (::fstat(STDERR_FILENO, &info) != 0 || IsNullDevice(info)) return -1;
  if (S_ISREG(info.st_mode)) {
    return RetryOnEintr([&] { return ::writev(STDERR_FILENO, pieces.data(), kPieces); });
  }
  if (!S_ISSOCK(info.st_mode)) return WriteThroughOwnOpening(pieces);
  msghdr message{};
  message.msg_iov = pieces.data();
  message.msg_iovlen = pieces.size();
  return RetryOnEintr(
      [&] { return ::sendmsg(STDERR_FILENO, &message, MSG_DONTWAIT | MSG_NOSIGNAL); });
}

// Whether the last line was cut. Atomic: lines come from any thread.
constinit std::atomic<bool> lineIsCut = false;

bool WriteErrorLine(std::string_view prefix, std::string_view text) noexcept {
  const bool afterCut = lineIsCut.exchange(false);
  TPieces pieces{PieceOf(afterCut ? "\n" : ""), PieceOf(prefix), PieceOf(text), PieceOf("\n")};
  std::size_t length = 0;
  for (const iovec& piece : pieces) length += piece.iov_len;
  const ssize_t written = WriteToStandardError(pieces);
  const bool whole = written == static_cast<ssize_t>(length);
  if (!whole && (afterCut || written > 0)) lineIsCut.store(true);
  return whole;
}

}  // namespace

void PrintLine(std::string_view text) {
  std::string line;
  line.reserve(text.size() + 1);
  line.append(text).push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

bool DebugOutput(std::string_view text) noexcept { return WriteErrorLine("", text); }

void KZAssert(bool condition, std::string_view label) noexcept {
  if (!condition) WriteErrorLine("Assertion failed: ", label);
}

}  // namespace guardian
