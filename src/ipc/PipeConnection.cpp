#include "ipc/PipeConnection.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/PipeCounters.h"

namespace guardian {
namespace {

constexpr std::chrono::milliseconds kLongestWait{1000};
constexpr std::size_t kReadBytes = 4096;
constexpr std::size_t kMaxUndelivered = 16'777'216;

std::int64_t NextSerial() {
  static std::atomic<std::int64_t> serial = 0;
  return ++serial;
}

std::atomic<int>& OpenSockets(TPipeSide side) {
  return side == TPipeSide::Client ? PipeCounters().ClientPipes : PipeCounters().ServerPipes;
}

}  // namespace

void TWriteQueue::Append(TPipeWrite write) {
  const TKZLockGuard lock(FLock);
  FWrites.push_back(std::move(write));
  if (FWrites.size() == 1) FDataEvent.Signal();
}

std::optional<TPipeWrite> TWriteQueue::Dequeue() {
  const TKZLockGuard lock(FLock);
  if (FWrites.empty()) {
    FDataEvent.Reset();
    return std::nullopt;
  }
  TPipeWrite write = std::move(FWrites.front());
  FWrites.pop_front();
  return write;
}

std::size_t TWriteQueue::Count() {
  const TKZLockGuard lock(FLock);
  return FWrites.size();
}

void TWriteQueue::Limit(std::size_t maxItems) {
  const TKZLockGuard lock(FLock);
  while (FWrites.size() > maxItems) FWrites.pop_front();
}

TPipeConnection::TPipeConnection(TFileDescriptor socket, TPipeSide side, std::string watchedPath,
                                 std::uint32_t maxFrameSize)
    : FSocket(std::move(socket)),
      FSide(side),
      FWatchedPath(std::move(watchedPath)),
      FMaxFrameSize(maxFrameSize),
      FSerial(NextSerial()) {
  ++OpenSockets(FSide);
}

TPipeConnection::~TPipeConnection() { --OpenSockets(FSide); }

void TPipeConnection::End() noexcept {
  if (FEnded.exchange(true)) return;
  ::shutdown(FSocket.Get(), SHUT_RDWR);
  FQueue.Wake();
  FDeliveredEvent.Signal();
}

void TPipeConnection::ReadAll(const TFrameParser::TSink& onPayload) {
  TFrameParser parser(FMaxFrameSize);
  TReadResult result = TReadResult::Nothing;
  while (!Ended() && result != TReadResult::PeerGone) {
    if (WatchedPathIsGone()) break;
    if (TooManyUndelivered()) {
      FDeliveredEvent.WaitFor(kLongestWait);
      continue;
    }
    if (result == TReadResult::Nothing && !WaitReadable()) continue;
    result = QueuedRead(parser, onPayload);
  }
  End();
}

TPipeConnection::TReadResult TPipeConnection::QueuedRead(TFrameParser& parser,
                                                         const TFrameParser::TSink& onPayload) {
  std::array<char, kReadBytes> buffer;
  const ssize_t got = RetryOnEintr(
      [&] { return ::recv(FSocket.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT); });
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return TReadResult::Nothing;
  if (got <= 0) return TReadResult::PeerGone;
  parser.Feed({buffer.data(), static_cast<std::size_t>(got)}, onPayload);
  return TReadResult::Got;
}

bool TPipeConnection::WaitReadable() const {
  pollfd readable{.fd = FSocket.Get(), .events = POLLIN, .revents = 0};
  return ::poll(&readable, 1, static_cast<int>(kLongestWait.count())) > 0;
}

// A peer that removes its socket file has gone, whatever its socket does. Looked at twice a second
// at most, not with every read.
bool TPipeConnection::WatchedPathIsGone() {
  constexpr std::int64_t kLookIntervalMs = 500;
  const std::int64_t now = SystemTickCount();
  if (FWatchedPath.empty() || now - FPathLookedAtTick < kLookIntervalMs) return false;
  FPathLookedAtTick = now;
  return ::access(FWatchedPath.c_str(), F_OK) != 0;
}

bool TPipeConnection::TooManyUndelivered() const noexcept {
  return FUndelivered.load() > kMaxUndelivered;
}

void TPipeConnection::RemoveUndelivered(std::size_t bytes) {
  if (FUndelivered.fetch_sub(bytes) > kMaxUndelivered) FDeliveredEvent.Signal();
}

void TPipeConnection::WriteAll(const std::function<void(std::size_t)>& onSent) {
  while (!Ended()) {
    if (FQueue.WaitForData(kLongestWait)) QueuedWrite(onSent);
  }
}

void TPipeConnection::QueuedWrite(const std::function<void(std::size_t)>& onSent) {
  const std::optional<TPipeWrite> write = FQueue.Dequeue();
  if (!write) return;
  const ssize_t sent =
      ::send(FSocket.Get(), write->Buffer.data(), write->Buffer.size(), MSG_NOSIGNAL);
  // A short write is not retried: the call blocks until all is taken, so it is short only when the
  // connection breaks, and then the rest of the frame is of no use to anybody.
  if (sent == static_cast<ssize_t>(write->Buffer.size())) onSent(write->Buffer.size());
}

}  // namespace guardian
