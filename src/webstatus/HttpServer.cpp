#include "webstatus/HttpServer.h"

#include <fcntl.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <list>
#include <set>
#include <utility>

#include "common/Console.h"
#include "common/Exceptions.h"
#include "common/NeverDestroyed.h"
#include "webstatus/HttpConnections.h"
#include "webstatus/HttpThreads.h"

namespace guardian {
namespace {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using TErrorCode = boost::system::error_code;

constexpr int kKernelSendBytes = 65'536;  // The kernel doubles it.
constexpr std::chrono::milliseconds kPause{100};

// Each once, and none that a listed address of all covers: to listen on both would fail.
std::set<asio::ip::address> DistinctAddresses(const std::vector<std::string>& texts) {
  std::set<asio::ip::address> addresses;
  for (const std::string& text : texts) addresses.insert(asio::ip::make_address(text));
  const asio::ip::address all4 = asio::ip::address_v4::any();
  const asio::ip::address all6 = asio::ip::address_v6::any();
  const bool has4 = addresses.contains(all4);
  const bool has6 = addresses.contains(all6);
  std::erase_if(addresses, [&](const asio::ip::address& address) {
    return address.is_v6() ? has6 && address != all6 : has4 && address != all4;
  });
  return addresses;
}

}  // namespace

// The server from one Activate to the next Deactivate: its listeners, and when its connections are
// looked at.
// Owner: THttpServer.
// Threads: the constructor, Start, Stop, GoesOn and the destructor by the owner; all else by the
// server's own thread. Lifetime: never freed when Stop has returned false.
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
  [[nodiscard]] bool GoesOn();

 private:
  struct TListener {
    explicit TListener(asio::io_context& context) : Acceptor(context), Pause(context) {}
    tcp::acceptor Acceptor;
    asio::steady_timer Pause;
    bool Failing = false;
  };

  void Listen(const asio::ip::address& address, bool both);
  void ListenOnAll();
  void Accept(TListener& listener);
  void AcceptNow(TListener& listener);
  void AcceptAfterFailure(TListener& listener, const TErrorCode& error);
  void Sweep();

  const THttpServer::THandler FHandler;
  const THttpServerOptions FOptions;
  std::uint16_t FPort;
  bool FStopping = false;
  // The thread has worked off what GoesOn asked last. Atomic: the owner clears it.
  std::atomic<bool> FAnswered = true;
  THttpConnections FConnections;  // Before the threads, whose queue may hold the last of them.
  THttpThreads FThreads;
  std::list<TListener> FListeners;
  asio::steady_timer FSweepTimer{FThreads.Context()};
};

THttpRun::THttpRun(THttpServer::THandler handler, THttpServerOptions options, TClock& clock,
                   std::uint16_t port)
    : FHandler(std::move(handler)),
      FOptions(std::move(options)),
      FPort(port),
      FConnections(FHandler, FOptions, clock, FThreads),
      FThreads(FOptions, clock) {
  if (FOptions.Addresses.empty()) ListenOnAll();
  for (const asio::ip::address& address : DistinctAddresses(FOptions.Addresses)) {
    try {
      Listen(address, false);
    } catch (const boost::system::system_error& error) {
      if (error.code() == asio::error::address_in_use) throw;
      const ESystemError reason("Listen on", address.to_string(), error.code().value());
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
  TListener listener(FThreads.Context());
  tcp::acceptor& acceptor = listener.Acceptor;
  acceptor.open(tcp::endpoint(address, FPort).protocol());
  ::fcntl(acceptor.native_handle(), F_SETFD, FD_CLOEXEC);
  acceptor.set_option(tcp::acceptor::reuse_address(true));
  acceptor.set_option(asio::socket_base::send_buffer_size(kKernelSendBytes));
  if (address.is_v6()) acceptor.set_option(asio::ip::v6_only(!both));
  acceptor.bind(tcp::endpoint(address, FPort));
  acceptor.listen();
  acceptor.non_blocking(true);  // Who is announced may have gone.
  FPort = acceptor.local_endpoint().port();
  FListeners.push_back(std::move(listener));
}

void THttpRun::Start() {
  for (TListener& listener : FListeners) Accept(listener);
  FThreads.Start();
}

bool THttpRun::Stop() {
  asio::post(FThreads.Context(), [this] {
    FStopping = true;
    FListeners.clear();
    FConnections.FinishAnswers();
  });
  FConnections.WaitUntilNoneBusy(FOptions.StopGrace);
  FThreads.Stop();
  // Without its thread all of it is this thread's. What is still being answered is cut off visibly.
  FConnections.CloseAll();
  return FThreads.StopBlockingCalls();
}

bool THttpRun::GoesOn() {
  const bool answered = FAnswered.exchange(false);
  // Otherwise the question before still waits, and a second one would say no more.
  if (answered) asio::post(FThreads.Context(), [this] { FAnswered = true; });
  return answered;
}

void THttpRun::Accept(TListener& listener) {
  FThreads.Persist([&] {
    listener.Acceptor.async_wait(tcp::acceptor::wait_read, [this, &listener](const TErrorCode&) {
      if (!FStopping) AcceptNow(listener);
    });
  });
}

// The library's own accept in the background would be gone for good when its memory fails.
void THttpRun::AcceptNow(TListener& listener) {
  try {
    tcp::socket socket(FThreads.Context());
    TErrorCode error;
    listener.Acceptor.accept(socket, error);
    if (error && error != asio::error::would_block) return AcceptAfterFailure(listener, error);
    if (!error) {
      listener.Failing = false;
      ::fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC);
      const bool isFirst = FConnections.Count() == 0;
      FConnections.Welcome(std::move(socket));
      if (isFirst && FConnections.Count() > 0) Sweep();
    }
  } catch (...) {
    FOptions.Report(std::current_exception());
  }
  Accept(listener);
}

// A lasting failure, such as no descriptor left, is told once.
void THttpRun::AcceptAfterFailure(TListener& listener, const TErrorCode& error) {
  if (!std::exchange(listener.Failing, true)) {
    FOptions.Report(
        std::make_exception_ptr(ESystemError("Accept", "HTTP connection", error.value())));
  }
  FThreads.Persist([&] {
    listener.Pause.expires_after(kPause);
    listener.Pause.async_wait([this, &listener](const TErrorCode&) {
      if (!FStopping) Accept(listener);
    });
  });
}

// Goes on while there are connections: a server that nobody asks sleeps.
void THttpRun::Sweep() {
  FThreads.Persist([this] {
    FSweepTimer.expires_after(FOptions.SweepInterval);
    FSweepTimer.async_wait([this](const TErrorCode& error) {
      if (error) return;
      FConnections.CloseTooSlow();
      if (FConnections.Count() > 0) Sweep();
      FConnections.LetInNext();
    });
  });
}

void THttpServerOptions::Report(std::exception_ptr error) const noexcept {
  try {
    if (OnError) return OnError(std::move(error));
    std::rethrow_exception(std::move(error));
  } catch (...) {
    // Also what the callback itself throws: there is nobody else left to be told.
    DebugOutput("HTTP server: " + CurrentExceptionMessage());
  }
}

THttpServer::THttpServer(THandler handler, THttpServerOptions options, TClock& clock)
    : FHandler(std::move(handler)), FOptions(std::move(options)), FClock(clock) {}

THttpServer::~THttpServer() {
  try {
    Deactivate();
  } catch (...) {
    FOptions.Report(std::current_exception());
  }
}

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

bool THttpServer::GoesOn() { return !FRun || FRun->GoesOn(); }

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
