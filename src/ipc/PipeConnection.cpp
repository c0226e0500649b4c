#include "ipc/PipeConnection.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <span>
#include <utility>

#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exceptions/PipeCounters.h"

namespace guardian {
namespace {

constexpr std::chrono::milliseconds kLongestWait{1000};
constexpr std::size_t kReadBytes = 4096;
constexpr std::size_t kMaxSpare = 64;
constexpr std::size_t kMaxSpareBytes = 65'536;

std::int64_t NextSerial() {
  static std::atomic<std::int64_t> serial = 0;
  return ++serial;
}

std::atomic<int>& OpenSockets(TPipeSide side) {
  return side == TPipeSide::Client ? PipeCounters().ClientPipes : PipeCounters().ServerPipes;
}

}  // namespace

void TWriteQueue::Append(std::string_view payload) {
  TPipeWrite write{TakeSpare()};
  AppendFrame(write.Buffer, payload);
  bool wasEmpty = false;
  {
    const TKZLockGuard lock(FLock);
    wasEmpty = FWrites.empty();
    FWrites.push_back(std::move(write));
  }
  if (wasEmpty) FDataEvent.Signal();
}

std::string TWriteQueue::TakeSpare() {
  const TMutexLock lock(FSpareLock);
  if (FSpare.empty()) return {};
  std::string spare = std::move(FSpare.back());
  FSpare.pop_back();
  return spare;
}

std::optional<TPipeWrite> TWriteQueue::Dequeue() {
  TPipeWrite write;
  const TKZLockGuard lock(FLock);
  if (!TakeLocked(write)) return std::nullopt;
  return write;
}

bool TWriteQueue::Exchange(TPipeWrite& write) {
  GiveSpare(write);
  const TKZLockGuard lock(FLock);
  return TakeLocked(write);
}

void TWriteQueue::GiveSpare(TPipeWrite& write) {
  if (write.Buffer.capacity() > kMaxSpareBytes) return;
  write.Buffer.clear();
  const TMutexLock lock(FSpareLock);
  if (FSpare.size() < kMaxSpare) FSpare.push_back(std::move(write.Buffer));
}

bool TWriteQueue::TakeLocked(TPipeWrite& write) {
  if (FWrites.empty()) {
    FDataEvent.Reset();
    return false;
  }
  write = std::move(FWrites.front());
  FWrites.pop_front();
  return true;
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
  // The longest wait of a read; End wakes it earlier. One call a read, where waiting by select and
  // reading would be two.
  const timeval longestWait{.tv_sec = kLongestWait.count() / 1000, .tv_usec = 0};
  ::setsockopt(FSocket.Get(), SOL_SOCKET, SO_RCVTIMEO, &longestWait, sizeof(longestWait));
}

TPipeConnection::~TPipeConnection() { --OpenSockets(FSide); }

void TPipeConnection::End() noexcept {
  if (FEnded.exchange(true)) return;
  ::shutdown(FSocket.Get(), SHUT_RDWR);
  FQueue.Wake();
  FPayloads->Wake();
}

void TPipeConnection::ReadAll(const TFrameParser::TSink& onPayload) {
  KZCP::Checkpoint("PipeRead:Sock#" + std::to_string(Pipe()));
  TFrameParser parser(FMaxFrameSize);
  while (!Ended() && !WatchedPathIsGone()) {
    if (FPayloads->IsFull()) {
      FPayloads->WaitForRoom(kLongestWait);
    } else if (QueuedRead(parser, onPayload) == TReadResult::PeerGone) {
      return;
    }
  }
}

TPipeConnection::TReadResult TPipeConnection::QueuedRead(TFrameParser& parser,
                                                         const TFrameParser::TSink& onPayload) {
  const std::span<char> room = parser.Room(kReadBytes);
  const ssize_t got =
      RetryOnEintr([&] { return ::recv(FSocket.Get(), room.data(), room.size(), 0); });
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return TReadResult::TimedOut;
  if (got <= 0) return TReadResult::PeerGone;
  parser.Filled(static_cast<std::size_t>(got), onPayload);
  return TReadResult::Received;
}

// A peer that removes its socket file has gone, whatever its socket does. Looked at twice a second
// at most, not with every read.
bool TPipeConnection::WatchedPathIsGone() {
  constexpr std::int64_t kLookIntervalMs = 500;
  if (FWatchedPath.empty()) return false;
  const std::int64_t now = SystemTickCount();
  if (now - FPathLookedAtTick < kLookIntervalMs) return false;
  FPathLookedAtTick = now;
  return ::access(FWatchedPath.c_str(), F_OK) != 0;
}

void TPipeConnection::WriteAll(const std::function<void(std::size_t)>& onSent) {
  const std::string waiting = "WaitforDataForSock#" + std::to_string(Pipe());
  TPipeWrite write;
  while (!Ended()) {
    if (FQueue.Exchange(write)) {
      QueuedWrite(write, onSent);
    } else {
      KZCP::Checkpoint(waiting);
      FQueue.WaitForData(kLongestWait);
    }
  }
}

void TPipeConnection::QueuedWrite(const TPipeWrite& write,
                                  const std::function<void(std::size_t)>& onSent) {
  const ssize_t sent =
      ::send(FSocket.Get(), write.Buffer.data(), write.Buffer.size(), MSG_NOSIGNAL);
  // A short write is not retried: the call blocks until all is taken, so it is short only when the
  // connection breaks, and then the rest of the frame is of no use to anybody.
  if (sent == static_cast<ssize_t>(write.Buffer.size())) onSent(write.Buffer.size());
}

}  // namespace guardian
