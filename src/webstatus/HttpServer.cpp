#include "webstatus/HttpServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/status.hpp>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "common/Console.h"
#include "common/Exceptions.h"
#include "common/Mutex.h"
#include "common/Texts.h"
#include "common/Thread.h"
#include "webstatus/HttpConnections.h"
#include "webstatus/HttpListener.h"

namespace guardian {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;
using TErrorCode = boost::system::error_code;

constexpr std::size_t kReadBytes = 2048;
constexpr std::size_t kKeptBufferBytes = 8192;  // An idle connection keeps at most this much.
constexpr std::size_t kFileChunkBytes = 65'536;
constexpr std::size_t kMaxDrainBytes = 1'048'576;
constexpr int kAcceptsPerTurn = 16;
constexpr std::chrono::milliseconds kAcceptPause{100};
constexpr std::size_t kPoolStackBytes = 1'048'576;

// Parses a request and keeps only what the server needs of it.
class TRequestParser final : public http::basic_parser<true> {
 public:
  // The server counts the header's bytes itself: the parser would limit single lines only.
  TRequestParser() {
    header_limit(std::numeric_limits<std::uint32_t>::max());
    body_limit(boost::none);
  }

  std::string Method;
  std::string Target;
  std::string SecFetchSite;

 private:
  using TView = boost::beast::string_view;

  void on_request_impl(http::verb, TView method, TView target, int, TErrorCode&) override {
    Method.assign(method.data(), method.size());
    Target.assign(target.data(), target.size());
  }
  void on_field_impl(http::field, TView name, TView value, TErrorCode&) override {
    if (boost::beast::iequals(name, "Sec-Fetch-Site")) {
      SecFetchSite.assign(value.data(), value.size());
    }
  }
  // The base class demands these; the server does not use them.
  void on_response_impl(int, TView, int, TErrorCode&) override {}
  void on_header_impl(TErrorCode&) override {}
  void on_body_init_impl(const boost::optional<std::uint64_t>&, TErrorCode&) override {}
  std::size_t on_body_impl(TView body, TErrorCode&) override { return body.size(); }
  void on_chunk_header_impl(std::uint64_t, TView, TErrorCode&) override {}
  std::size_t on_chunk_body_impl(std::uint64_t, TView body, TErrorCode&) override {
    return body.size();
  }
  void on_finish_impl(TErrorCode&) override {}
};

// "http://host/path" means the same as "/path".
std::string_view WithoutAuthority(std::string_view target) {
  constexpr std::string_view kScheme = "http://";
  if (!boost::beast::iequals({target.data(), std::min(target.size(), kScheme.size())},
                             {kScheme.data(), kScheme.size()})) {
    return target;
  }
  target.remove_prefix(kScheme.size());
  return target.substr(std::min(target.find_first_of("/?"), target.size()));
}

THttpRequest MakeRequest(TRequestParser& parser) {
  const std::string_view target = WithoutAuthority(parser.Target);
  const std::size_t mark = std::min(target.find('?'), target.size());
  return {std::move(parser.Method), LinkDecode(target.substr(0, mark)),
          std::string(target.substr(std::min(mark + 1, target.size()))),
          std::move(parser.SecFetchSite)};
}

THttpResponse PlainResponse(int status) {
  THttpResponse response;
  response.Status = status;
  response.ContentType = "text/plain";
  const auto reason = http::obsolete_reason(static_cast<http::status>(status));
  response.Body.assign(reason.data(), reason.size()).append("\n");
  return response;
}

std::uint64_t LengthOf(const THttpResponse& response) {
  if (response.File) return response.FileSize;
  std::uint64_t length = response.Body.size();
  for (const auto& text : response.Tail) length += text->size();
  return length;
}

bool HasBody(int status) { return status != 204 && status != 304; }

// Control characters are replaced: a line end in a value would begin a forged header.
void AppendHeader(std::string& head, std::string_view name, std::string_view value) {
  head.append(name).append(": ");
  for (const char c : value) {
    const bool isControl = static_cast<unsigned char>(c) < ' ' || c == '\x7f';
    head.push_back(isControl ? '_' : c);
  }
  head.append("\r\n");
}

void FormatHead(std::string& head, const THttpResponse& response, std::uint64_t length,
                bool keepAlive) {
  const auto reason = http::obsolete_reason(static_cast<http::status>(response.Status));
  head.assign("HTTP/1.1 ").append(std::to_string(response.Status)).append(" ");
  head.append(reason.data(), reason.size()).append("\r\n");
  AppendHeader(head, "Content-Type", response.ContentType);
  AppendHeader(head, "Content-Disposition", response.ContentDisposition);
  if (HasBody(response.Status)) AppendHeader(head, "Content-Length", std::to_string(length));
  if (response.Status == 405) AppendHeader(head, "Allow", "GET, HEAD");
  head.append(keepAlive ? "Connection: keep-alive\r\n" : "Connection: close\r\n");
  head.append(
      "Cache-Control: no-store\r\n"
      "X-Content-Type-Options: nosniff\r\n"
      "Content-Security-Policy: default-src 'none'; style-src 'unsafe-inline'; "
      "frame-ancestors 'none'; base-uri 'none'; form-action 'none'\r\n"
      "\r\n");
}

// What a connection uses of its server.
struct TSurroundings {
  const THttpServer::THandler& Handler;
  const THttpServerOptions& Options;
  TClock& Clock;
  THttpConnections& Connections;

  [[nodiscard]] std::int64_t In(std::chrono::milliseconds duration) const {
    return Clock.TickCount() + duration.count();
  }
};

void Report(const THttpServerOptions& options, std::exception_ptr error) noexcept {
  try {
    if (options.OnError) return options.OnError(std::move(error));
    std::rethrow_exception(std::move(error));
  } catch (...) {
    // This also reports what the callback itself throws.
    DebugOutput("HTTP server: " + CurrentExceptionMessage());
  }
}

// One accepted socket and its requests, one after the other.
// Owner: the one pending operation. When no further operation is started, the connection is freed;
// only then is its socket closed.
// Threads: the operations form a chain, so one pool thread at a time works on the connection. Any
// thread may call ShutDown.
// Lifetime: the surroundings and the io_context outlive it.
class TConnection final : public THttpConnection, public std::enable_shared_from_this<TConnection> {
 public:
  TConnection(const TSurroundings& surroundings, tcp::socket socket)
      : FSurroundings(surroundings),
        FSocket(std::move(socket)),
        FDescriptor(FSocket.native_handle()) {}

  ~TConnection() override {
    if (FTicket) FSurroundings.Connections.Remove(*FTicket);
  }

  void Start() {
    FTicket = FSurroundings.Connections.Add(weak_from_this(),
                                            FSurroundings.In(FSurroundings.Options.HeaderTimeout));
    FParser.emplace();
    Read();
  }

  void ShutDown(THttpShutdown how) noexcept override {
    if (how == THttpShutdown::Reset) {
      const linger atOnce{1, 0};
      ::setsockopt(FDescriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
    }
    ::shutdown(FDescriptor, SHUT_RDWR);
  }

 private:
  enum class TBody { Sent, LeftOut };

  void Read() {
    FSocket.async_read_some(FInput.prepare(kReadBytes),
                            [self = shared_from_this()](const TErrorCode& error, std::size_t got) {
                              if (error) return;
                              self->FInput.commit(got);
                              self->Parse();
                            });
  }

  void Parse() {
    TErrorCode error;
    const std::size_t used = FParser->put(FInput.data(), error);
    FInput.consume(used);
    FHeaderBytes += used;
    const std::size_t limit = FSurroundings.Options.MaxHeaderBytes;
    if (error == http::error::need_more) {
      return FHeaderBytes + FInput.size() < limit ? Read() : Answer(PlainResponse(431));
    }
    if (error) return Answer(PlainResponse(400));
    if (FHeaderBytes > limit) return Answer(PlainResponse(431));
    AnswerRequest();
  }

  // After a request with a body the connection is closed, so that the body is never taken for the
  // next request.
  void AnswerRequest() {
    if (!FSurroundings.Connections.StartAnswer(*FTicket)) return;
    const THttpRequest request = MakeRequest(*FParser);
    const bool isHead = request.Method == "HEAD";
    if (!isHead && request.Method != "GET") return Send(PlainResponse(405), TBody::Sent);
    FKeepAlive = FParser->is_done() && FParser->keep_alive();
    Send(CallHandler(request), isHead ? TBody::LeftOut : TBody::Sent);
  }

  // Sends the last answer of this connection.
  void Answer(THttpResponse response) {
    if (!FSurroundings.Connections.StartAnswer(*FTicket)) return;
    Send(std::move(response), TBody::Sent);
  }

  THttpResponse CallHandler(const THttpRequest& request) {
    try {
      THttpResponse response = FSurroundings.Handler(request);
      if (response.Status >= 200 && response.Status <= 599) return response;
      throw KZException("HTTP status " + std::to_string(response.Status) + " of " + request.Path);
    } catch (...) {
      Report(FSurroundings.Options, std::current_exception());
      return PlainResponse(500);
    }
  }

  void Send(THttpResponse response, TBody body) {
    FResponse = std::move(response);
    FormatHead(FHead, FResponse, LengthOf(FResponse), FKeepAlive);
    if (body == TBody::LeftOut || !HasBody(FResponse.Status)) {
      FResponse.Body.clear();
      FResponse.Tail.clear();
      FResponse.File.Close();
    }
    FFileLeft = FResponse.File ? FResponse.FileSize : 0;
    FFileOffset = 0;
    FOutput.assign({asio::buffer(FHead), asio::const_buffer()});
    if (!FResponse.File) AddTextsToOutput();
    FProgressed = true;
    Write();
  }

  void AddTextsToOutput() {
    FOutput[1] = asio::buffer(FResponse.Body);
    for (const auto& text : FResponse.Tail) FOutput.push_back(asio::buffer(*text));
  }

  // Each piece is a task of its own in the pool, so that a long answer does not delay the others.
  void Write() {
    if (!FillOutputFromFile()) return;
    TErrorCode error;
    const std::size_t written = FSocket.write_some(FOutput, error);
    if (error == asio::error::would_block) return WaitUntilWritable();
    if (error) return;
    FProgressed = true;
    ConsumeOutput(written);
    if (asio::buffer_size(FOutput) + FFileLeft == 0) return FinishAnswer();
    asio::post(FSocket.get_executor(), [self = shared_from_this()] { self->Write(); });
  }

  void WaitUntilWritable() {
    if (FProgressed) {
      FSurroundings.Connections.SetDeadline(*FTicket,
                                            FSurroundings.In(FSurroundings.Options.WriteTimeout));
    }
    FProgressed = false;
    FSocket.async_wait(tcp::socket::wait_write,
                       [self = shared_from_this()](const TErrorCode& error) {
                         if (!error) self->Write();
                       });
  }

  // False when the file is shorter than promised: the early end of the connection tells the client.
  bool FillOutputFromFile() {
    if (FFileLeft == 0 || FOutput[1].size() > 0) return true;
    FChunk.resize(kFileChunkBytes);
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(FFileLeft, FChunk.size()));
    const ssize_t got = RetryOnEintr([&] {
      return ::pread(FResponse.File.Get(), FChunk.data(), wanted, static_cast<off_t>(FFileOffset));
    });
    if (got <= 0) return false;
    const auto count = static_cast<std::size_t>(got);
    FOutput[1] = asio::buffer(FChunk.data(), count);
    FFileOffset += count;
    FFileLeft -= count;
    return true;
  }

  void ConsumeOutput(std::size_t written) {
    for (asio::const_buffer& part : FOutput) {
      const std::size_t taken = std::min(written, part.size());
      part += taken;
      written -= taken;
    }
  }

  void FinishAnswer() {
    ReleaseAnswer();
    if (!FKeepAlive) return SayGoodbye();
    const std::int64_t deadline = FSurroundings.In(FSurroundings.Options.HeaderTimeout);
    if (!FSurroundings.Connections.FinishAnswer(*FTicket, deadline)) return;
    FKeepAlive = false;
    FHeaderBytes = 0;
    FParser.emplace();
    if (FInput.size() == 0) return Read();
    asio::post(FSocket.get_executor(), [self = shared_from_this()] { self->Parse(); });
  }

  // An idle connection keeps little memory and no file.
  void ReleaseAnswer() {
    FOutput.clear();
    FResponse = THttpResponse();
    std::vector<char>().swap(FChunk);
    if (FInput.capacity() > kKeptBufferBytes && FInput.size() < kReadBytes) FInput.shrink_to_fit();
  }

  // Closing a socket with unread input would reset the connection, and the client might lose the
  // answer. So the server reads and drops further input until the client closes too.
  void SayGoodbye() {
    TErrorCode ignored;
    FSocket.shutdown(tcp::socket::shutdown_send, ignored);
    const std::int64_t deadline = FSurroundings.In(FSurroundings.Options.CloseTimeout);
    if (!FSurroundings.Connections.FinishAnswer(*FTicket, deadline)) return;
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

  const TSurroundings& FSurroundings;
  tcp::socket FSocket;
  const int FDescriptor;  // The number of FSocket, for ShutDown: FSocket belongs to the chain.
  std::optional<THttpConnections::TTicket> FTicket;
  boost::beast::flat_buffer FInput;
  std::optional<TRequestParser> FParser;
  std::size_t FHeaderBytes = 0;  // Parsed bytes of the current header.
  bool FKeepAlive = false;
  THttpResponse FResponse;
  std::string FHead;
  // The unsent parts: the head, then the body or a chunk of the file, then the tail.
  std::vector<asio::const_buffer> FOutput;
  std::vector<char> FChunk;
  std::uint64_t FFileOffset = 0;
  std::uint64_t FFileLeft = 0;
  bool FProgressed = false;  // Something was written since the deadline was last set.
  std::size_t FDrainedBytes = 0;
};

}  // namespace

// The server from one Activate to the next Deactivate.
// Owner: THttpServer.
// Threads: as THttpServer. Each field without a lock belongs either to the chain of accepts or to
// the chain of sweeps.
// Lifetime: the destructor stops and joins everything.
class THttpServer::TRun {
 public:
  TRun(const THttpServer& server, std::uint16_t port)
      : FSurroundings{server.FHandler, server.FOptions, server.FClock, FConnections},
        FIo(static_cast<int>(server.FOptions.Threads)) {
    OpenListener(port);
    WaitForConnection();
  }

  ~TRun() {
    CloseListener();
    FConnections.Stop();
    FConnections.WaitUntilNoneBusy(FSurroundings.Clock,
                                   FSurroundings.In(FSurroundings.Options.StopGrace));
    FConnections.SendAwayAll();
    FIo.stop();
    for (const auto& thread : FThreads) thread->Join();
  }

  TRun(const TRun&) = delete;
  TRun& operator=(const TRun&) = delete;

  [[nodiscard]] std::uint16_t Port() KZ_EXCLUDES(FListenerLock) {
    const TMutexLock lock(FListenerLock);
    return FListener.local_endpoint().port();
  }

  void StartThreads() {
    const THttpServerOptions& options = FSurroundings.Options;
    for (std::size_t i = 1; i <= options.Threads; ++i) {
      FThreads.push_back(std::make_unique<TFunctionThread>(
          options.ThreadName + " #" + std::to_string(i), [this] { RunPool(); }, kPoolStackBytes));
      FThreads.back()->Start();
    }
  }

 private:
  void OpenListener(std::uint16_t port) KZ_EXCLUDES(FListenerLock) {
    THttpListener listener = ListenForHttp(port);
    FProtocol = listener.IsIPv6 ? tcp::v6() : tcp::v4();
    const TMutexLock lock(FListenerLock);
    FListener.assign(FProtocol, listener.Socket.Get());
    static_cast<void>(listener.Socket.Release());
  }

  void CloseListener() KZ_EXCLUDES(FListenerLock) {
    const TMutexLock lock(FListenerLock);
    TErrorCode ignored;
    FListener.close(ignored);
  }

  // Ends only by FIo.stop(). An exception that arrives here has already ended the connection that
  // threw it.
  void RunPool() {
    while (!FIo.stopped()) {
      try {
        FIo.run();
      } catch (...) {
        Report(FSurroundings.Options, std::current_exception());
      }
    }
  }

  // The sweep goes on while there are connections; without any the server sleeps.
  void StartSweeping() {
    if (!FSweeping.exchange(true)) Sweep();
  }

  void Sweep() {
    FSweepTimer.expires_after(FSurroundings.Options.SweepInterval);
    FSweepTimer.async_wait([this](const TErrorCode&) {
      if (FConnections.IsEmpty()) return StopSweeping();
      Sweep();
      FConnections.SendAwayExpired(FSurroundings.Clock.TickCount());
    });
  }

  void StopSweeping() {
    FSweeping = false;
    // A connection may have come meanwhile and have found FSweeping still set.
    if (!FConnections.IsEmpty()) StartSweeping();
  }

  void WaitForConnection() KZ_EXCLUDES(FListenerLock) {
    const TMutexLock lock(FListenerLock);
    if (!FListener.is_open()) return;
    FListener.async_wait(tcp::acceptor::wait_read, [this](const TErrorCode&) { AcceptSome(); });
  }

  void PauseAccepting() {
    FAcceptPause.expires_after(kAcceptPause);
    FAcceptPause.async_wait([this](const TErrorCode&) { AcceptSome(); });
  }

  void AcceptSome() {
    TAfterAccept next = TAfterAccept::TryNext;
    for (int i = 0; i < kAcceptsPerTurn && next == TAfterAccept::TryNext; ++i) next = AcceptOne();
    if (next == TAfterAccept::Pause) return PauseAccepting();
    WaitForConnection();
  }

  // Throws nothing: an exception would end the chain of accepts.
  TAfterAccept AcceptOne() {
    try {
      int error = 0;
      TFileDescriptor socket = Accept(error);
      if (!socket) return AfterAcceptError(error);
      FAcceptFailing = false;
      if (FConnections.MakeRoom(FSurroundings.Options.MaxConnections)) Welcome(std::move(socket));
      return TAfterAccept::TryNext;
    } catch (...) {
      Report(FSurroundings.Options, std::current_exception());
      return TAfterAccept::Pause;
    }
  }

  TFileDescriptor Accept(int& error) KZ_EXCLUDES(FListenerLock) {
    const TMutexLock lock(FListenerLock);
    // After the listener is closed, WaitForConnection ends the chain.
    error = EAGAIN;
    if (!FListener.is_open()) return {};
    const int listener = FListener.native_handle();
    TFileDescriptor socket(RetryOnEintr(
        [&] { return ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); }));
    if (!socket) error = errno;
    return socket;
  }

  // A lasting failure is reported once.
  TAfterAccept AfterAcceptError(int error) {
    const TAfterAccept next = DecideAfterAcceptError(error);
    if (next == TAfterAccept::Pause && !std::exchange(FAcceptFailing, true)) {
      Report(FSurroundings.Options,
             std::make_exception_ptr(ESystemError("Accept", "HTTP connection", error)));
    }
    return next;
  }

  void Welcome(TFileDescriptor descriptor) {
    tcp::socket socket(FIo);
    socket.assign(FProtocol, descriptor.Get());
    static_cast<void>(descriptor.Release());
    socket.non_blocking(true);
    TErrorCode ignored;  // Without the option the answers are only slower.
    socket.set_option(tcp::no_delay(true), ignored);
    std::make_shared<TConnection>(FSurroundings, std::move(socket))->Start();
    StartSweeping();
  }

  // Declared before FIo, whose destructor frees the last connections.
  THttpConnections FConnections;
  const TSurroundings FSurroundings;
  asio::io_context FIo;
  asio::executor_work_guard<asio::io_context::executor_type> FWork{FIo.get_executor()};
  TMutex FListenerLock;
  tcp::acceptor FListener KZ_GUARDED_BY(FListenerLock){FIo};
  tcp FProtocol = tcp::v6();  // Set before the threads start, constant from then on.
  asio::steady_timer FAcceptPause{FIo};
  bool FAcceptFailing = false;
  // FSweeping is atomic: the chain of accepts and the chain of sweeps both change it. Only the
  // thread that has set it uses FSweepTimer, until the chain of sweeps clears it again.
  std::atomic<bool> FSweeping{false};
  asio::steady_timer FSweepTimer{FIo};
  std::vector<std::unique_ptr<TThread>> FThreads;
};

THttpServer::THttpServer(THandler handler, THttpServerOptions options, TClock& clock)
    : FHandler(std::move(handler)), FOptions(std::move(options)), FClock(clock) {}

THttpServer::~THttpServer() { Deactivate(); }

void THttpServer::Activate(std::uint16_t port) {
  if (FRun) throw KZException("The HTTP server is active already");
  try {
    auto run = std::make_unique<TRun>(*this, port);
    // Stored before the threads start: a handler may ask for the port.
    FPort.store(run->Port());
    run->StartThreads();
    FRun = std::move(run);
  } catch (const boost::system::system_error& error) {
    FPort.store(0);
    throw ESystemError("Listen on", "port " + std::to_string(port), error.code().value());
  } catch (...) {
    FPort.store(0);
    throw;
  }
}

void THttpServer::Deactivate() {
  FRun.reset();
  FPort.store(0);
}

}  // namespace guardian
