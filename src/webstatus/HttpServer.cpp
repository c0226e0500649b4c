#include "webstatus/HttpServer.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <malloc.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/parser.hpp>
#include <limits>
#include <list>
#include <optional>

#include "common/Console.h"
#include "common/Event.h"
#include "common/Exceptions.h"
#include "common/NeverDestroyed.h"
#include "common/Thread.h"

namespace guardian {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;
using TErrorCode = boost::system::error_code;

constexpr std::size_t kReadBytes = 2048;
constexpr std::size_t kKeptBufferBytes = 8192;  // What an idle connection may keep of its buffer.
constexpr std::size_t kFileChunkBytes = 65'536;
constexpr int kKernelSendBytes = 65'536;  // The kernel doubles it.
constexpr std::size_t kMaxDrainBytes = 1'048'576;
constexpr std::chrono::milliseconds kPause{100};
constexpr std::size_t kStackBytes = 1'048'576;
constexpr std::size_t kBlockingThreads = 2;
constexpr std::size_t kFewConnections = 8;

void Report(const THttpServerOptions& options, std::exception_ptr error) noexcept {
  try {
    if (options.OnError) return options.OnError(std::move(error));
    std::rethrow_exception(std::move(error));
  } catch (...) {
    // Also what the callback itself throws: there is nobody else left to be told.
    DebugOutput("HTTP server: " + CurrentExceptionMessage());
  }
}

// Runs the handlers of an io_context until that is stopped. What escapes a connection's handlers
// has already ended the connection.
class TIoThread final : public TThread {
 public:
  TIoThread(std::string name, asio::io_context& io, const THttpServerOptions& options)
      : TThread(std::move(name), kStackBytes), FIo(io), FOptions(options) {
    Start();
  }
  ~TIoThread() override { Join(); }

 private:
  void Execute() override {
    while (!FIo.stopped()) {
      try {
        FIo.run();
      } catch (...) {
        Report(FOptions, std::current_exception());
      }
    }
  }
  void OnTerminate() override { FIo.stop(); }

  asio::io_context& FIo;
  const THttpServerOptions& FOptions;
};

// As a text that is the same for one machine, and whether that is this one.
struct TPeer {
  explicit TPeer(asio::ip::address address) {
    if (address.is_v6() && address.to_v6().is_v4_mapped()) {
      address = asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6());
    }
    Address = address;
    IsLocal = address.is_loopback();
  }

  asio::ip::address Address;
  bool IsLocal = false;
};

}  // namespace

// The server from one Activate to the next Deactivate.
// Owner: THttpServer.
// Threads: the constructor, Start, Stop and the destructor by the owner; all else, the connections
// included, by the one thread of FIo, but for the blocking calls.
// Lifetime: never freed when Stop has said so.
class THttpRun {
 public:
  THttpRun(THttpServer::THandler handler, THttpServerOptions options, TClock& clock,
           std::uint16_t port);
  ~THttpRun() = default;
  THttpRun(const THttpRun&) = delete;
  THttpRun& operator=(const THttpRun&) = delete;

  [[nodiscard]] std::uint16_t Port() const { return FPort; }
  void Start();
  // Returns false when a blocking call stands still, which uses this object until its end.
  [[nodiscard]] bool Stop();

 private:
  friend class TConnection;

  struct TListener {
    explicit TListener(asio::io_context& io) : Acceptor(io), Pause(io) {}
    tcp::acceptor Acceptor;
    asio::steady_timer Pause;
    bool Failing = false;
  };
  enum class TRoom { Free, Later, Refused };

  void Listen(const asio::ip::address& address, bool both);
  void ListenOnAll();
  void Accept(TListener& listener);
  void AcceptAfterFailure(TListener& listener, const TErrorCode& error);
  void Welcome(TListener& listener, tcp::socket socket);
  [[nodiscard]] TRoom MakeRoom(const TPeer& peer);
  [[nodiscard]] class TConnection* LongestBusy(const TPeer& newcomer);
  void Sweep();
  void CloseAll();
  void BusyEnded();

  // Repeats a step without which the server would stand still until there is memory for it.
  template <typename TStep>
  void Persist(const TStep& step);

  [[nodiscard]] std::int64_t In(std::chrono::milliseconds duration) const {
    return FClock.TickCount() + duration.count();
  }
  [[nodiscard]] bool BlockingCallsStandStill() const;

  const THttpServer::THandler FHandler;
  const THttpServerOptions FOptions;
  TClock& FClock;
  std::uint16_t FPort;
  std::list<class TConnection*> FConnections;  // Those that are open, the longest idle first.
  std::size_t FBusy = 0;
  bool FStopping = false;
  bool FGrown = false;  // A connection has held much memory.
  TKZEvent FNoneBusy{"HTTPServerNoneBusy", TEventReset::Manual};
  // Since when each blocking call under way has run; 0 while its place is free. Atomics: written by
  // the blocking threads.
  std::array<std::atomic<std::int64_t>, kBlockingThreads> FBlockedSince{};
  asio::io_context FIo{1};
  asio::io_context FBlockingIo;
  asio::executor_work_guard<asio::io_context::executor_type> FWork{FIo.get_executor()};
  asio::executor_work_guard<asio::io_context::executor_type> FBlockingWork{
      FBlockingIo.get_executor()};
  std::list<TListener> FListeners;
  asio::steady_timer FSweepTimer{FIo};
  std::vector<std::unique_ptr<TIoThread>> FBlockingThreads;
  std::unique_ptr<TIoThread> FThread;
};

// One accepted socket and its requests, one after the other. It is idle while it waits for a
// request, receives one or takes its leave, and busy while that is answered.
// Owner: the one operation that is pending; when none is started any more, the connection goes.
// Threads: the run's. Lifetime: the run outlives it.
class TConnection final : public std::enable_shared_from_this<TConnection> {
 public:
  TConnection(THttpRun& run, const TPeer& peer, tcp::socket socket)
      : FRun(run), FPeer(peer), FSocket(std::move(socket)) {
    FPlace = FRun.FConnections.insert(FRun.FConnections.end(), this);
    FParser.emplace();
    BecomeIdle(FRun.FOptions.HeaderTimeout);
  }

  ~TConnection() {
    NoteGrowth();
    Close(asio::socket_base::linger(false, 0));
  }
  TConnection(const TConnection&) = delete;
  TConnection& operator=(const TConnection&) = delete;

  void Read() {
    FSocket.async_read_some(FInput.prepare(kReadBytes),
                            [self = shared_from_this()](const TErrorCode& error, std::size_t got) {
                              if (error) return;
                              self->FInput.commit(got);
                              self->Parse();
                            });
  }

  [[nodiscard]] const TPeer& Peer() const { return FPeer; }
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
        FDeadline = now + FRun.FOptions.WriteTimeout.count();
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
    FDeadline = FRun.In(time);
    if (FPlace) FRun.FConnections.splice(FRun.FConnections.end(), FRun.FConnections, *FPlace);
    if (std::exchange(FBusySince, std::nullopt)) FRun.BusyEnded();
  }

  void BecomeBusy() {
    FBusySince = FRun.In({});
    FDeadline = FRun.In(FRun.FOptions.WriteTimeout);
    ++FRun.FBusy;
  }

  void Close(const asio::socket_base::linger& linger) {
    TErrorCode ignored;
    if (FSocket.is_open()) FSocket.set_option(linger, ignored);
    FSocket.close(ignored);
    if (FPlace) FRun.FConnections.erase(*FPlace);
    FPlace.reset();
    if (std::exchange(FBusySince, std::nullopt)) FRun.BusyEnded();
  }

  // The parser's own limit is one on single lines, so the header's bytes are counted here.
  void Parse() {
    TErrorCode error;
    const std::size_t used = FParser->put(FInput.data(), error);
    FInput.consume(used);
    FHeaderBytes += used;
    const std::size_t limit = FRun.FOptions.MaxHeaderBytes;
    if (error == http::error::need_more && FHeaderBytes + FInput.size() < limit) return Read();
    BecomeBusy();
    if (error == http::error::need_more || (!error && FHeaderBytes > limit)) return Refuse(431);
    if (error || IsAmbiguous()) return Refuse(400);
    AnswerRequest();
  }

  // Two readers of the same bytes could take them for different requests.
  [[nodiscard]] bool IsAmbiguous() const {
    const auto& fields = FParser->get();
    return fields.count(http::field::host) > 1 ||
           (fields.count(http::field::transfer_encoding) > 0 && !FParser->chunked());
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
    const auto& mayBlock = FRun.FOptions.MayBlock;
    if (!mayBlock || !mayBlock(request)) return Send(ResponseTo(request));
    if (FRun.BlockingCallsStandStill()) return Refuse(503);
    CallBlocking([this, request = std::move(request)] { return ResponseTo(request); },
                 [this](THttpResponse response) { Send(std::move(response)); });
  }

  // The last answer of this connection.
  void Refuse(int status) {
    FIsHead = false;
    Send(PlainResponse(status));
  }

  // Runs the call in a blocking thread, then the other here with its result. The connection is held
  // meanwhile, and never let go in the blocking thread.
  template <typename TCall, typename TThen>
  void CallBlocking(TCall call, TThen then) {
    asio::post(FRun.FBlockingIo, [self = shared_from_this(), &run = FRun, call = std::move(call),
                                  then = std::move(then)]() mutable {
      const std::int64_t now = run.In({});
      // As many places as threads, so one is free.
      auto& place = *std::find_if(run.FBlockedSince.begin(), run.FBlockedSince.end(),
                                  [now](std::atomic<std::int64_t>& since) {
                                    std::int64_t free = 0;
                                    return since.compare_exchange_strong(free, now);
                                  });
      auto result = call();
      place = 0;
      asio::post(run.FIo, [self = std::move(self), then = std::move(then),
                           result = std::move(result)]() mutable { then(std::move(result)); });
    });
  }

  THttpResponse ResponseTo(const THttpRequest& request) const {
    try {
      THttpResponse response = FRun.FHandler(request);
      if (response.Status >= 200 && response.Status <= 599) return response;
      throw KZException("HTTP status " + std::to_string(response.Status) + " of " + request.Path);
    } catch (...) {
      Report(FRun.FOptions, std::current_exception());
      return PlainResponse(500);
    }
  }

  void Send(THttpResponse response) {
    FResponse = std::move(response);
    FHead = HeadOf(FResponse, FRun.FOptions.ExtraHeaders, FRun.FClock.UtcNow(), FKeepAlive);
    FOutput.assign({asio::buffer(FHead)});
    if (FIsHead || !HasBody(FResponse.Status)) {
      FResponse.File.Close();
    } else if (!FResponse.File) {
      FOutput.push_back(asio::buffer(FResponse.Body));
      for (const auto& text : FResponse.Tail) FOutput.push_back(asio::buffer(*text));
    }
    FFileOffset = 0;
    WriteAtOnce();
  }

  // A short answer fits into the kernel's buffer, and needs no turn of its own.
  void WriteAtOnce() {
    TErrorCode error;
    const std::size_t written = FSocket.write_some(FOutput, error);
    if (error == asio::error::would_block) return Write();
    if (!error) NoteWritten(written);
  }

  void NoteWritten(std::size_t count) {
    FWritten += count;
    ConsumeOutput(count);
    GoOn();
  }

  // One turn of the thread for each piece, so that a long answer does not keep others waiting.
  void Write() {
    FSocket.async_write_some(
        FOutput, [self = shared_from_this()](const TErrorCode& error, std::size_t written) {
          if (!error) self->NoteWritten(written);
        });
  }

  void ConsumeOutput(std::size_t written) {
    for (asio::const_buffer& part : FOutput) {
      const std::size_t taken = std::min(written, part.size());
      part += taken;
      written -= taken;
    }
  }

  void GoOn() {
    if (asio::buffer_size(FOutput) > 0) return Write();
    if (!FResponse.File || FFileOffset == FResponse.FileSize) return FinishAnswer();
    if (FRun.BlockingCallsStandStill()) return;
    FChunk.resize(std::min<std::uint64_t>(FResponse.FileSize - FFileOffset, kFileChunkBytes));
    CallBlocking(
        [this] {
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
    if (FRun.FStopping) return;
    BecomeIdle(FRun.FOptions.HeaderTimeout);
    FKeepAlive = false;
    FHeaderBytes = 0;
    FParser.emplace();
    if (FInput.size() == 0) return Read();
    asio::post(FRun.FIo, [self = shared_from_this()] {
      if (self->FSocket.is_open()) self->Parse();
    });
  }

  // To close while something is unread would reset the connection, and the client might lose the
  // answer; so what it still sends is thrown away until it closes too.
  void SayGoodbye() {
    TErrorCode ignored;
    FSocket.shutdown(tcp::socket::shutdown_send, ignored);
    BecomeIdle(FRun.FOptions.CloseTimeout);
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
    if (FInput.capacity() > kKeptBufferBytes || !FChunk.empty()) FRun.FGrown = true;
  }

  THttpRun& FRun;
  const TPeer FPeer;
  tcp::socket FSocket;
  std::optional<std::list<TConnection*>::iterator>
      FPlace;  // In the run's list, until it is closed.
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

THttpRun::THttpRun(THttpServer::THandler handler, THttpServerOptions options, TClock& clock,
                   std::uint16_t port)
    : FHandler(std::move(handler)), FOptions(std::move(options)), FClock(clock), FPort(port) {
  if (FOptions.Addresses.empty()) ListenOnAll();
  for (const std::string& address : FOptions.Addresses) {
    try {
      Listen(asio::ip::make_address(address), false);
    } catch (const boost::system::system_error& error) {
      if (error.code() == asio::error::address_in_use) throw;
      const ESystemError reason("Listen on", address, error.code().value());
      if (FOptions.OnUnusable) FOptions.OnUnusable(reason.Message());
    }
  }
  if (FListeners.empty()) throw KZException("None of the addresses can be listened on");
}

// On both families by one socket, on IPv4 alone where there is no IPv6.
void THttpRun::ListenOnAll() {
  try {
    Listen(asio::ip::address_v6::any(), true);
  } catch (const boost::system::system_error& error) {
    if (error.code() == asio::error::address_in_use) throw;
    Listen(asio::ip::address_v4::any(), true);
  }
}

// Address reuse lets a restart take a port on which connections of the last run are still fading
// out; it does not let two listeners share one. The bound of the send buffer is inherited by what
// is accepted: a peer that takes nothing costs the kernel no more.
void THttpRun::Listen(const asio::ip::address& address, bool both) {
  TListener listener(FIo);
  tcp::acceptor& acceptor = listener.Acceptor;
  acceptor.open(tcp::endpoint(address, FPort).protocol());
  ::fcntl(acceptor.native_handle(), F_SETFD, FD_CLOEXEC);
  acceptor.set_option(tcp::acceptor::reuse_address(true));
  acceptor.set_option(asio::socket_base::send_buffer_size(kKernelSendBytes));
  if (address.is_v6()) acceptor.set_option(asio::ip::v6_only(!both));
  acceptor.bind(tcp::endpoint(address, FPort));
  acceptor.listen();
  FPort = acceptor.local_endpoint().port();
  FListeners.push_back(std::move(listener));
}

void THttpRun::Start() {
  for (TListener& listener : FListeners) Accept(listener);
  for (std::size_t i = 1; i <= kBlockingThreads; ++i) {
    FBlockingThreads.push_back(std::make_unique<TIoThread>(
        FOptions.ThreadName + " #" + std::to_string(i + 1), FBlockingIo, FOptions));
  }
  FThread = std::make_unique<TIoThread>(FOptions.ThreadName + " #1", FIo, FOptions);
}

bool THttpRun::Stop() {
  asio::post(FIo, [this] { CloseAll(); });
  FNoneBusy.WaitFor(FOptions.StopGrace);
  FThread.reset();
  // Without its thread all of it is this thread's. What is still being answered is cut off visibly.
  while (!FConnections.empty()) FConnections.front()->Close();
  FBlockingIo.stop();
  return std::all_of(FBlockingThreads.begin(), FBlockingThreads.end(), [this](const auto& thread) {
    return thread->WaitFinished(FOptions.StopGrace);
  });
}

void THttpRun::CloseAll() {
  FStopping = true;
  FListeners.clear();
  for (auto next = FConnections.begin(); next != FConnections.end();) {
    TConnection& connection = **next++;
    if (!connection.BusySince()) connection.Close();
  }
  if (FBusy == 0) FNoneBusy.Signal();
}

void THttpRun::BusyEnded() {
  if (--FBusy == 0 && FStopping) FNoneBusy.Signal();
}

template <typename TStep>
void THttpRun::Persist(const TStep& step) {
  while (!FIo.stopped()) {
    try {
      return step();
    } catch (...) {
      Report(FOptions, std::current_exception());
      SystemClock().Sleep(kPause);
    }
  }
}

void THttpRun::Accept(TListener& listener) {
  Persist([&] {
    listener.Acceptor.async_accept([this, &listener](const TErrorCode& error, tcp::socket socket) {
      if (FStopping) return;
      if (error) return AcceptAfterFailure(listener, error);
      listener.Failing = false;
      ::fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC);
      Welcome(listener, std::move(socket));
    });
  });
}

// A lasting failure, such as no descriptor left, is told once.
void THttpRun::AcceptAfterFailure(TListener& listener, const TErrorCode& error) {
  if (!std::exchange(listener.Failing, true)) {
    Report(FOptions,
           std::make_exception_ptr(ESystemError("Accept", "HTTP connection", error.value())));
  }
  Persist([&] {
    listener.Pause.expires_after(kPause);
    listener.Pause.async_wait([this, &listener](const TErrorCode&) {
      if (!FStopping) Accept(listener);
    });
  });
}

// While there is no room, those who come next wait in the kernel's queue.
void THttpRun::Welcome(TListener& listener, tcp::socket socket) {
  try {
    const TPeer peer(socket.remote_endpoint().address());
    const TRoom room = MakeRoom(peer);
    if (room == TRoom::Later) {
      listener.Pause.expires_after(kPause);
      return listener.Pause.async_wait(
          [this, &listener, socket = std::move(socket)](const TErrorCode&) mutable {
            if (!FStopping) Welcome(listener, std::move(socket));
          });
    }
    if (room == TRoom::Free) {
      socket.non_blocking(true);
      TErrorCode ignored;  // Without it the answers are slower at worst.
      socket.set_option(tcp::no_delay(true), ignored);
      std::make_shared<TConnection>(*this, peer, std::move(socket))->Read();
      if (FConnections.size() == 1) Sweep();
    }
  } catch (...) {
    Report(FOptions, std::current_exception());
  }
  Accept(listener);
}

// The one that has been idle longest gives way, else the one that has been busy longest.
THttpRun::TRoom THttpRun::MakeRoom(const TPeer& peer) {
  const auto ofPeer = std::count_if(
      FConnections.begin(), FConnections.end(),
      [&peer](const TConnection* other) { return other->Peer().Address == peer.Address; });
  const bool isCrowd = static_cast<std::size_t>(ofPeer) >= FOptions.MaxConnectionsOfAPeer;
  if (isCrowd && !peer.IsLocal) return TRoom::Refused;
  if (FConnections.size() < FOptions.MaxConnections) return TRoom::Free;
  const auto idle = std::find_if(FConnections.begin(), FConnections.end(),
                                 [](const TConnection* other) { return !other->BusySince(); });
  TConnection* const leaving = idle != FConnections.end() ? *idle : LongestBusy(peer);
  if (leaving == nullptr) return TRoom::Later;
  leaving->Close();
  return TRoom::Free;
}

// Null when none has been busy for long; the commands of this machine need not wait for others.
TConnection* THttpRun::LongestBusy(const TPeer& newcomer) {
  TConnection* longest = nullptr;
  const std::int64_t latest = In(-FOptions.BusyTime);
  for (TConnection* const other : FConnections) {
    const bool mayGo = other->BusySince() < latest || (newcomer.IsLocal && !other->Peer().IsLocal);
    if (!mayGo) continue;
    if (longest == nullptr || other->BusySince() < longest->BusySince()) longest = other;
  }
  return longest;
}

// Goes on while there are connections: a server that nobody asks sleeps. The memory of a flood goes
// back to the system when few are left; the heap would keep it.
void THttpRun::Sweep() {
  Persist([this] {
    FSweepTimer.expires_after(FOptions.SweepInterval);
    FSweepTimer.async_wait([this](const TErrorCode& error) {
      if (error) return;
      const std::int64_t now = FClock.TickCount();
      for (auto next = FConnections.begin(); next != FConnections.end();) {
        TConnection& connection = **next++;
        if (connection.IsTooSlow(now)) connection.Close();
      }
      if (FGrown && FConnections.size() < kFewConnections) {
        FGrown = false;
        ::malloc_trim(0);
      }
      if (!FConnections.empty()) Sweep();
    });
  });
}

bool THttpRun::BlockingCallsStandStill() const {
  const std::int64_t latest = In(-FOptions.StuckAfter);
  return std::all_of(FBlockedSince.begin(), FBlockedSince.end(), [latest](const auto& since) {
    const std::int64_t tick = since.load();
    return tick != 0 && tick < latest;
  });
}

THttpServer::THttpServer(THandler handler, THttpServerOptions options, TClock& clock)
    : FHandler(std::move(handler)), FOptions(std::move(options)), FClock(clock) {}

THttpServer::~THttpServer() { Deactivate(); }

void THttpServer::Activate(std::uint16_t port) {
  if (FRun) throw KZException("The HTTP server is active already");
  try {
    auto run = std::make_unique<THttpRun>(FHandler, FOptions, FClock, port);
    // Known before the first handler can ask for it.
    FPort.store(run->Port());
    run->Start();
    FRun = std::move(run);
  } catch (const boost::system::system_error& error) {
    FPort.store(0);
    throw ESystemError("Listen on", "port " + std::to_string(port), error.code().value());
  } catch (...) {
    FPort.store(0);
    throw;
  }
}

bool THttpServer::Deactivate() {
  // Not freed under a call that stands still, which uses it until the process ends.
  static TNeverDestroyed<std::vector<std::unique_ptr<THttpRun>>> leftBehind;
  const bool ended = !FRun || FRun->Stop();
  if (!ended) (*leftBehind).push_back(std::move(FRun));
  FRun.reset();
  FPort.store(0);
  return ended;
}

}  // namespace guardian
