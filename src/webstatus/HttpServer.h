#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/Clock.h"
#include "webstatus/HttpMessage.h"

namespace guardian {

struct THttpServerOptions {
  std::string ThreadName = "HTTPServerThread";  // " #1" and so on is appended.
  std::size_t MaxConnections = 256;
  // From one address of another machine.
  std::size_t MaxConnectionsOfAPeer = 64;
  // An answer that has taken longer may be given up for a new connection when all are taken.
  std::chrono::milliseconds BusyTime{10'000};
  std::size_t MaxHeaderBytes = 65'536;
  // Numeric addresses to listen on; empty for all of the machine.
  std::vector<std::string> Addresses;
  // Sent with every answer: header lines, each ending in a line break.
  std::string ExtraHeaders;
  // The whole header must arrive in this time from the connect or from the previous answer on.
  std::chrono::milliseconds HeaderTimeout{10'000};
  // The longest time in which a client takes nothing of its answer, or a handler makes none. The
  // queue of a client that takes 4 kB a second stands still for half a minute at a time.
  std::chrono::milliseconds WriteTimeout{90'000};
  // How long a client may take to close its end after the last answer of a connection.
  std::chrono::milliseconds CloseTimeout{2'000};
  // The deadlines above are looked at once an interval, while there are connections.
  std::chrono::milliseconds SweepInterval{250};
  // How long Deactivate waits for answers that are being written.
  std::chrono::milliseconds StopGrace{500};
  // Requests whose handler may stand still, as one that looks into a folder on a dead disk. They,
  // and the reading of files, run in two threads of their own. While both have stood still for
  // StuckAfter, more such requests are answered 503 at once.
  std::function<bool(const THttpRequest&)> MayBlock;
  std::chrono::milliseconds StuckAfter{5'000};
  // Is told, in one of its threads, what a handler threw and what else went wrong. Standard error
  // when empty.
  std::function<void(std::exception_ptr)> OnError;
  // Is told, in Activate, why one of the addresses is not listened on. May be empty.
  std::function<void(const std::string& reason)> OnUnusable;

  // Tells OnError.
  void Report(std::exception_ptr error) const noexcept;
};

// An HTTP/1.1 server for short answers and for files: GET and HEAD, keep-alive, pipelining.
// Owner: the object that serves pages; the destructor deactivates.
// Threads: Activate, Deactivate, GoesOn and the destructor by one thread at a time, and never by
// the handler; Active and Port by any thread. The handler runs in the server's one thread, which
// must not wait for anything, and for requests of MayBlock in two others, at the same time.
// Lifetime: the clock and what the handler uses outlive the server, and the process when a handler
// stands still at its end.
class THttpServer {
 public:
  // What the handler throws goes to OnError, and the client gets a short answer 500.
  using THandler = std::function<THttpResponse(const THttpRequest&)>;

  explicit THttpServer(THandler handler, THttpServerOptions options = {},
                       TClock& clock = SystemClock());
  ~THttpServer();
  THttpServer(const THttpServer&) = delete;
  THttpServer& operator=(const THttpServer&) = delete;

  // Listens and starts the threads. Port 0 takes any free one. An address that the machine does not
  // have goes to OnUnusable, and the others are used. Throws ESystemError, whose message contains
  // "in use" for a port that is taken, and KZException when the server is active already; it is
  // then as before.
  void Activate(std::uint16_t port);

  // Frees the port, lets answers that are being written finish for at most StopGrace, closes
  // everything and joins the threads: about StopGrace in all. A handler of MayBlock that stands
  // still is left behind: the call returns false, and what the handler uses must live as long as
  // the process. Does nothing when the server is inactive.
  bool Deactivate();

  // Whether the server's thread goes on: asks it anew, and returns whether it has worked off what
  // the call before asked. True while the server is inactive. Does not wait. Owner's thread.
  [[nodiscard]] bool GoesOn();

  [[nodiscard]] bool Active() const noexcept { return Port() != 0; }

  // The port it listens on; 0 when inactive.
  [[nodiscard]] std::uint16_t Port() const noexcept { return FPort.load(); }

 private:
  const THandler FHandler;
  const THttpServerOptions FOptions;
  TClock& FClock;
  std::atomic<std::uint16_t> FPort = 0;  // Atomic: pages show it while the owner changes it.
  std::unique_ptr<class THttpRun> FRun;  // From Activate to Deactivate.
};

}  // namespace guardian
