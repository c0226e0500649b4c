#include "ipc/PipeConnection.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "common/Clock.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exceptions/PipeCounters.h"

namespace guardian {
namespace {

constexpr std::chrono::milliseconds kLongestWait{1000};
constexpr std::size_t kReadBytes = 4096;

std::int64_t NextSerial() {
  static std::atomic<std::int64_t> serial = 0;
  return ++serial;
}

std::atomic<int>& OpenSockets(TPipeSide side) {
  return side == TPipeSide::Client ? PipeCounters().ClientPipes : PipeCounters().ServerPipes;
}

// Tells whether the socket file is still there. A peer that removes it has gone, whatever its
// socket does. Looks twice a second at most, and not with every read. Threads: the reader's.
class TPathWatch {
 public:
  explicit TPathWatch(const std::string& path) : FPath(path) {}

  bool IsGone() {
    constexpr std::int64_t kLookIntervalMs = 500;
    if (FPath.empty()) return false;
    const std::int64_t now = SystemTickCount();
    if (now - FLookedAtTick < kLookIntervalMs) return false;
    FLookedAtTick = now;
    return ::access(FPath.c_str(), F_OK) != 0;
  }

 private:
  const std::string& FPath;
  std::int64_t FLookedAtTick = 0;
};

}  // namespace

TPipeConnection::TPipeConnection(TFileDescriptor socket, TPipeSide side, std::string watchedPath,
                                 std::uint32_t maxFrameSize)
    : FSocket(std::move(socket)),
      FSide(side),
      FWatchedPath(std::move(watchedPath)),
      FMaxFrameSize(maxFrameSize),
      FSerial(NextSerial()) {
  ++OpenSockets(FSide);
  // The longest wait of a read; End wakes it earlier. One call a read, where waiting by select and
  // reading would be two.
  const timeval longestWait{.tv_sec = kLongestWait.count() / 1000, .tv_usec = 0};
  ::setsockopt(FSocket.Get(), SOL_SOCKET, SO_RCVTIMEO, &longestWait, sizeof(longestWait));
}

TPipeConnection::~TPipeConnection() { --OpenSockets(FSide); }

void TPipeConnection::End() noexcept {
  if (FEnded.exchange(true)) return;
  ::shutdown(FSocket.Get(), SHUT_RDWR);
  FQueue.Close();
  FPayloads->Wake();
}

void TPipeConnection::ReadAll(const TFrameParser::TSink& onPayload) {
  KZCP::Checkpoint(FReads);
  TFrameParser parser(FMaxFrameSize);
  TPathWatch watch(FWatchedPath);
  while (!Ended() && !watch.IsGone()) {
    if (FPayloads->IsFull()) {
      KZCP::Checkpoint("PipeRead:WaitForRoom");
      FPayloads->WaitForRoom(kLongestWait);
      KZCP::Checkpoint(FReads);
    } else if (QueuedRead(parser, onPayload) == TReadResult::PeerGone) {
      return;
    }
  }
}

ssize_t TPipeConnection::Receive(std::span<char> room, int flags) const noexcept {
  const ssize_t got =
      RetryOnEintr([&] { return ::recv(FSocket.Get(), room.data(), room.size(), flags); });
  return got < 0 ? -errno : got;
}

TPipeConnection::TReadResult TPipeConnection::QueuedRead(TFrameParser& parser,
                                                         const TFrameParser::TSink& onPayload) {
  const std::span<char> room = parser.Room(kReadBytes);
  ssize_t got = Receive(room, MSG_DONTWAIT);
  if (got == -EAGAIN) {
    KZCP::Checkpoint(FWaitsToRead);
    got = Receive(room, 0);
    KZCP::Checkpoint(FReads);
  }
  if (got == -EAGAIN) return TReadResult::TimedOut;
  if (got <= 0) return TReadResult::PeerGone;
  parser.Filled(static_cast<std::size_t>(got), onPayload);
  return TReadResult::Received;
}

void TPipeConnection::WriteAll(const TOnSent& onSent) {
  KZCP::Checkpoint(FWrites);
  while (!Ended()) {
    if (std::optional<TPipeWrite> write = FQueue.Dequeue()) {
      QueuedWrite(*write, onSent);
      FQueue.Recycle(std::move(*write));
      continue;
    }
    KZCP::Checkpoint(FWaitsToWrite);
    FQueue.WaitForData(kLongestWait);
    KZCP::Checkpoint(FWrites);
  }
}

void TPipeConnection::QueuedWrite(const TPipeWrite& write, const TOnSent& onSent) {
  const std::string& bytes = *write.Buffer;
  const ssize_t sent =
      RetryOnEintr([&] { return ::send(FSocket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); });
  // A short write is not retried: the call blocks until all is taken, so it is short only when the
  // connection breaks, and then the rest of the frame is of no use.
  if (sent == static_cast<ssize_t>(bytes.size())) onSent(bytes.size());
}

}  // namespace guardian
