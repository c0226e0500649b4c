#include "webstatus/HttpConnections.h"

#include <linux/sockios.h>
#include <malloc.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/asio/post.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/parser.hpp>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/AtEnd.h"
#include "common/Exceptions.h"
#include "common/Progress.h"
#include "webstatus/HttpMessage.h"

namespace guardian {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;
using TErrorCode = boost::system::error_code;

constexpr std::size_t kReadBytes = 2048;
constexpr std::size_t kKeptBufferBytes = 8192;  // What an idle connection may keep of its buffer.
constexpr std::size_t kFileChunkBytes = 65'536;
constexpr std::size_t kMaxDrainBytes = 1'048'576;
constexpr std::size_t kFewConnections = 8;
constexpr std::string_view kWaits = "HTTPServer:Wait";

}  // namespace

// One accepted socket and its requests, one after the other. It is idle while it waits for a
// request, receives one or takes its leave, and busy while that is answered.
// Owner: the one operation that is pending; when none is started any more, the connection goes.
// Threads: the server's own. Lifetime: the table outlives it.
class THttpConnection final : public std::enable_shared_from_this<THttpConnection> {
 public:
  THttpConnection(THttpConnections& all, THttpPeer peer, tcp::socket socket)
      : FAll(all), FPeer(std::move(peer)), FSocket(std::move(socket)) {
    FPlace = FAll.FOpen.insert(FAll.FOpen.end(), this);
    FParser.emplace();
    BecomeIdle(FAll.FOptions.HeaderTimeout);
  }

  ~THttpConnection() {
    NoteGrowth();
    Close(asio::socket_base::linger(false, 0));
  }
  THttpConnection(const THttpConnection&) = delete;
  THttpConnection& operator=(const THttpConnection&) = delete;

  void Read() {
    FSocket.async_read_some(FInput.prepare(kReadBytes),
                            [self = shared_from_this()](const TErrorCode& error, std::size_t got) {
                              if (error) return;
                              self->FInput.commit(got);
                              self->Parse();
                            });
  }

  [[nodiscard]] const THttpPeer& Peer() const { return FPeer; }
  [[nodiscard]] std::optional<std::int64_t> BusySince() const { return FBusySince; }

  // Ends the connection, so that its pending operation wakes up and lets it go. What was written
  // and not taken is thrown away when it is busy.
  void Close() { Close(asio::socket_base::linger(FBusySince.has_value(), 0)); }

  // An idle connection has until its deadline; a busy one WriteTimeout from when its peer last took
  // something.
  [[nodiscard]] bool IsTooSlow(std::int64_t now) {
    int queued = 0;
    if (FBusySince && ::ioctl(FSocket.native_handle(), SIOCOUTQ, &queued) == 0) {
      const std::uint64_t taken = FWritten - static_cast<std::uint64_t>(queued);
      if (taken != std::exchange(FTaken, taken)) {
        FDeadline = now + FAll.FOptions.WriteTimeout.count();
      }
    }
    return now >= FDeadline;
  }

 private:
  // Limits of bodies and of single lines would only be in the way.
  struct TParser : http::request_parser<http::empty_body> {
    TParser() {
      header_limit(std::numeric_limits<std::uint32_t>::max());
      body_limit(boost::none);
    }
  };

  void BecomeIdle(std::chrono::milliseconds time) {
    FDeadline = FAll.In(time);
    if (FPlace) FAll.FOpen.splice(FAll.FOpen.end(), FAll.FOpen, *FPlace);
    if (std::exchange(FBusySince, std::nullopt)) FAll.BusyEnded();
  }

  void BecomeBusy() {
    FBusySince = FAll.In({});
    FDeadline = *FBusySince + FAll.FOptions.WriteTimeout.count();
    ++FAll.FBusy;
  }

  void Close(const asio::socket_base::linger& linger) {
    TErrorCode ignored;
    if (FSocket.is_open()) FSocket.set_option(linger, ignored);
    FSocket.close(ignored);
    if (FPlace) FAll.FOpen.erase(*FPlace);
    FPlace.reset();
    if (std::exchange(FBusySince, std::nullopt)) FAll.BusyEnded();
  }

  // The parser's own limit is one on single lines, so the header's bytes are counted here.
  void Parse() {
    TErrorCode error;
    const std::size_t used = FParser->put(FInput.data(), error);
    FInput.consume(used);
    FHeaderBytes += used;
    const std::size_t limit = FAll.FOptions.MaxHeaderBytes;
    if (error == http::error::need_more && FHeaderBytes + FInput.size() < limit) return Read();
    BecomeBusy();
    if (error == http::error::need_more || (!error && FHeaderBytes > limit)) return Refuse(431);
    if (error || IsAmbiguous()) return Refuse(400);
    AnswerRequest();
  }

  // Two readers of the same bytes could take them for different requests.
  [[nodiscard]] bool IsAmbiguous() const {
    const auto& fields = FParser->get();
    constexpr std::array<std::string_view, 7> kOnceAtMost = {
        "Host",    "Transfer-Encoding", "Sec-Fetch-Site", "Origin",
        "Referer", "Sec-Purpose",       "Purpose"};
    for (const std::string_view name : kOnceAtMost) {
      if (fields.count(name) > 1) return true;
    }
    const auto coding = fields.find(http::field::transfer_encoding);
    return coding != fields.end() && !EqualNames(coding->value(), "chunked");
  }

  // A request with a body is answered and then closed on, so that its body is never taken for the
  // next request.
  void AnswerRequest() {
    const auto& message = FParser->get();
    THttpRequest request =
        RequestOf({message.method_string().data(), message.method_string().size()},
                  {message.target().data(), message.target().size()});
    if (request.Method != "GET" && request.Method != "HEAD") return Refuse(405);
    for (const auto& field : message) {
      request.Headers.emplace_back(field.name_string(), field.value());
    }
    FKeepAlive = FParser->is_done() && FParser->keep_alive();
    FIsHead = request.Method == "HEAD";
    const auto& mayBlock = FAll.FOptions.MayBlock;
    if (!mayBlock || !mayBlock(request)) return Send(ResponseTo(request));
    if (FAll.FThreads.BlockingCallsStandStill()) return Send(PlainResponse(503));
    FAll.FThreads.CallBlocking(
        shared_from_this(), [this, request = std::move(request)] { return ResponseTo(request); },
        [this](THttpResponse response) { Send(std::move(response)); });
  }

  // The last answer of this connection.
  void Refuse(int status) {
    FIsHead = false;
    Send(PlainResponse(status));
  }

  THttpResponse ResponseTo(const THttpRequest& request) const {
    const TAtEnd waits([] { NoteProgress(kWaits); });
    NoteProgress("HTTPServer:" + request.Path);
    try {
      THttpResponse response = FAll.FHandler(request);
      if (response.Status >= 200 && response.Status <= 599) return response;
      throw KZException("HTTP status " + std::to_string(response.Status) + " of " + request.Path);
    } catch (...) {
      FAll.FOptions.Report(std::current_exception());
      return PlainResponse(500);
    }
  }

  void Send(THttpResponse response) {
    FResponse = std::move(response);
    FHead = HeadOf(FResponse, FAll.FOptions.ExtraHeaders, FAll.FClock.UtcNow(), FKeepAlive);
    FFileOffset = 0;
    FOutput.assign({asio::buffer(FHead)});
    if (FIsHead || !HasBody(FResponse.Status)) {
      FResponse.File.Close();
    } else if (!FResponse.File) {
      FOutput.emplace_back(asio::buffer(FResponse.Body));
      for (const auto& text : FResponse.Tail) FOutput.emplace_back(asio::buffer(*text));
    }
    // A short answer fits into the kernel's buffer, and needs no turn of its own.
    TErrorCode error;
    const std::size_t written = FSocket.write_some(FOutput, error);
    if (!error || error == asio::error::would_block) NoteWritten(written);
  }

  void NoteWritten(std::size_t count) {
    FWritten += count;
    ConsumeOutput(count);
    GoOn();
  }

  // What is written goes: the kernel takes so many pieces at a time, empty ones among them.
  void ConsumeOutput(std::size_t written) {
    auto piece = FOutput.begin();
    while (piece != FOutput.end() && piece->size() <= written) written -= (piece++)->size();
    if (piece != FOutput.end()) *piece += written;
    FOutput.erase(FOutput.begin(), piece);
  }

  // One turn of the thread for each piece, so that a long answer does not keep others waiting.
  void Write() {
    FSocket.async_write_some(
        FOutput, [self = shared_from_this()](const TErrorCode& error, std::size_t written) {
          if (!error) self->NoteWritten(written);
        });
  }

  void GoOn() {
    if (!FOutput.empty()) return Write();
    if (!FResponse.File || FFileOffset == FResponse.FileSize) return FinishAnswer();
    if (FAll.FThreads.BlockingCallsStandStill()) return;
    const auto left = std::min<std::uint64_t>(FResponse.FileSize - FFileOffset, kFileChunkBytes);
    FChunk.resize(static_cast<std::size_t>(left));
    FAll.FThreads.CallBlocking(
        shared_from_this(),
        [this] {
          const TAtEnd waits([] { NoteProgress(kWaits); });
          NoteProgress("HTTPServer:Read");
          return RetryOnEintr([this] {
            return ::pread(FResponse.File.Get(), FChunk.data(), FChunk.size(),
                           static_cast<off_t>(FFileOffset));
          });
        },
        [this](ssize_t got) { WriteChunk(got); });
  }

  // A file that holds less than was promised ends the connection: the client learns it from the
  // early end.
  void WriteChunk(ssize_t got) {
    if (got <= 0) return;
    FFileOffset += static_cast<std::size_t>(got);
    FOutput.assign({asio::buffer(FChunk.data(), static_cast<std::size_t>(got))});
    Write();
  }

  void FinishAnswer() {
    NoteGrowth();
    FResponse = THttpResponse();
    std::vector<char>().swap(FChunk);
    if (FInput.capacity() > kKeptBufferBytes && FInput.size() < kReadBytes) FInput.shrink_to_fit();
    if (!FKeepAlive) return SayGoodbye();
    if (FAll.FStopping) return;
    BecomeIdle(FAll.FOptions.HeaderTimeout);
    FKeepAlive = false;
    FHeaderBytes = 0;
    FParser.emplace();
    if (FInput.size() == 0) return Read();
    asio::post(FAll.FThreads.Context(), [self = shared_from_this()] {
      if (self->FSocket.is_open()) self->Parse();
    });
  }

  // To close while something is unread would reset the connection, and the client might lose the
  // answer; so what it still sends is thrown away until it closes too.
  void SayGoodbye() {
    TErrorCode ignored;
    FSocket.shutdown(tcp::socket::shutdown_send, ignored);
    BecomeIdle(FAll.FOptions.CloseTimeout);
    FInput.clear();
    Drain();
  }

  void Drain() {
    FSocket.async_read_some(FInput.prepare(kReadBytes),
                            [self = shared_from_this()](const TErrorCode& error, std::size_t got) {
                              self->FDrainedBytes += got;
                              if (error || self->FDrainedBytes > kMaxDrainBytes) return;
                              self->Drain();
                            });
  }

  void NoteGrowth() {
    const bool isLong = FResponse.Body.capacity() > kFileChunkBytes;
    if (FInput.capacity() > kKeptBufferBytes || !FChunk.empty() || isLong) FAll.FGrown = true;
  }

  THttpConnections& FAll;
  const THttpPeer FPeer;
  tcp::socket FSocket;
  std::optional<std::list<THttpConnection*>::iterator>
      FPlace;  // In the table's list, until it is closed.
  std::int64_t FDeadline = 0;
  std::optional<std::int64_t> FBusySince;
  std::uint64_t FWritten = 0;
  std::uint64_t FTaken = 0;  // Of that by the peer, at the last look.
  boost::beast::flat_buffer FInput;
  std::optional<TParser> FParser;  // Made anew for each request.
  std::size_t FHeaderBytes = 0;    // Of the current header, without what is still in FInput.
  bool FKeepAlive = false;
  bool FIsHead = false;
  THttpResponse FResponse;
  std::string FHead;
  std::vector<asio::const_buffer> FOutput;  // What is left of the head and the texts, or of FChunk.
  std::vector<char> FChunk;
  std::uint64_t FFileOffset = 0;
  std::size_t FDrainedBytes = 0;
};

THttpPeer::THttpPeer(asio::ip::address address) : Address(std::move(address)) {
  if (Address.is_v6() && Address.to_v6().is_v4_mapped()) {
    Address = asio::ip::make_address_v4(asio::ip::v4_mapped, Address.to_v6());
  }
  IsLocal = Address.is_loopback();
}

void THttpConnections::Welcome(tcp::socket socket) {
  TErrorCode gone;
  const tcp::endpoint from = socket.remote_endpoint(gone);
  if (gone) return;
  const THttpPeer peer(from.address());
  if (HasItsShare(peer)) return;
  const bool isNext = FWaiting.empty() || peer.IsLocal;
  if (isNext && MakeRoom(peer)) return Open(peer, std::move(socket));
  if (FWaiting.size() < FOptions.MaxConnections) FWaiting.push_back({peer, std::move(socket)});
}

bool THttpConnections::HasItsShare(const THttpPeer& peer) const {
  const auto isOfPeer = [&peer](const THttpPeer& other) { return other.Address == peer.Address; };
  const auto count = std::ranges::count_if(FOpen, isOfPeer, &THttpConnection::Peer) +
                     std::ranges::count_if(FWaiting, isOfPeer, &TWaiting::Peer);
  return !peer.IsLocal && static_cast<std::size_t>(count) >= FOptions.MaxConnectionsOfAPeer;
}

// One at a turn of the thread, since one that has sent nothing yet is the first to make room.
void THttpConnections::LetInNext() {
  if (FWaiting.empty() || !MakeRoom(FWaiting.front().Peer)) return;
  TWaiting next = std::move(FWaiting.front());
  FWaiting.pop_front();
  Open(next.Peer, std::move(next.Socket));
  asio::post(FThreads.Context(), [this] { LetInNext(); });
}

bool THttpConnections::MakeRoom(const THttpPeer& peer) {
  if (FOpen.size() < FOptions.MaxConnections) return true;
  const auto idle = std::find_if(FOpen.begin(), FOpen.end(),
                                 [](const THttpConnection* other) { return !other->BusySince(); });
  THttpConnection* const leaving = idle != FOpen.end() ? *idle : LongestBusy(peer);
  if (leaving != nullptr) leaving->Close();
  return leaving != nullptr;
}

// Null when none has been busy for long; the commands of this machine need not wait for others.
THttpConnection* THttpConnections::LongestBusy(const THttpPeer& newcomer) {
  THttpConnection* longest = nullptr;
  const std::int64_t latest = In(-FOptions.BusyTime);
  for (THttpConnection* const other : FOpen) {
    const bool mayGo = other->BusySince() < latest || (newcomer.IsLocal && !other->Peer().IsLocal);
    if (!mayGo) continue;
    if (longest == nullptr || other->BusySince() < longest->BusySince()) longest = other;
  }
  return longest;
}

void THttpConnections::Open(const THttpPeer& peer, tcp::socket socket) {
  socket.non_blocking(true);
  TErrorCode ignored;  // Without it the answers are slower at worst.
  socket.set_option(tcp::no_delay(true), ignored);
  std::make_shared<THttpConnection>(*this, peer, std::move(socket))->Read();
}

void THttpConnections::CloseTooSlow() {
  const std::int64_t now = FClock.TickCount();
  for (auto next = FOpen.begin(); next != FOpen.end();) {
    THttpConnection& connection = **next++;
    if (connection.IsTooSlow(now)) connection.Close();
  }
  if (!FGrown || FOpen.size() >= kFewConnections) return;
  FGrown = false;
  ::malloc_trim(0);
}

void THttpConnections::FinishAnswers() {
  FStopping = true;
  FWaiting.clear();
  for (auto next = FOpen.begin(); next != FOpen.end();) {
    THttpConnection& connection = **next++;
    if (!connection.BusySince()) connection.Close();
  }
  if (FBusy == 0) FNoneBusy.Signal();
}

void THttpConnections::CloseAll() {
  FWaiting.clear();
  while (!FOpen.empty()) FOpen.front()->Close();
}

void THttpConnections::BusyEnded() {
  if (--FBusy == 0 && FStopping) FNoneBusy.Signal();
}

}  // namespace guardian
