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
#include "common/FileDescriptor.h"
#include "common/SharedText.h"

namespace guardian {

struct THttpRequest {
  std::string Method;        // "GET" or "HEAD".
  std::string Path;          // Percent-decoded, without the query; as in "/status.php".
  std::string Query;         // The part after the "?", as it was sent.
  std::string SecFetchSite;  // The value of that header; empty without one.
};

struct THttpResponse {
  int Status = 200;  // 200 to 599.
  // Control characters in these two are sent as "_".
  std::string ContentType = "text/html";
  std::string ContentDisposition = "inline";
  std::string Body;
  // Shared texts that are sent after Body, without a copy. None is null.
  std::vector<TSharedText::TText> Tail;
  // When File is set, it is sent instead of Body and Tail: exactly FileSize bytes from its start,
  // chunk by chunk. When the file turns out to be shorter, the connection ends within the answer.
  TFileDescriptor File;
  std::uint64_t FileSize = 0;
};

struct THttpServerOptions {
  std::string ThreadName = "HTTPServerThread";  // " #1" and so on is appended.
  std::size_t Threads = 2;
  std::size_t MaxConnections = 256;
  std::size_t MaxHeaderBytes = 65'536;
  // The whole header must arrive within this time after the connect or the previous answer.
  std::chrono::milliseconds HeaderTimeout{10'000};
  // A client that takes nothing of its answer for this long is sent away.
  std::chrono::milliseconds WriteTimeout{30'000};
  // How long a client may take to close its end after the last answer of a connection.
  std::chrono::milliseconds CloseTimeout{2'000};
  // While there are connections, the deadlines above are checked once per interval.
  std::chrono::milliseconds SweepInterval{250};
  // How long Deactivate waits for answers that are being written.
  std::chrono::milliseconds StopGrace{500};
  // Called in a pool thread with what a handler threw and with the server's own failures. When it
  // is empty, they become lines on standard error.
  std::function<void(std::exception_ptr)> OnError;
};

// An HTTP/1.1 server for short answers and for files: GET and HEAD, keep-alive, pipelining.
// Owner: the object that serves the pages. The destructor deactivates.
// Threads: one thread at a time calls Activate, Deactivate and the destructor, and never the
// handler; any thread calls Active and Port. The handler runs in the threads of a small fixed pool,
// several calls at once, so it must not wait for anything.
// Lifetime: the clock and everything that the handler uses outlive the server. Deactivate joins the
// pool.
class THttpServer {
 public:
  // When the handler throws, OnError is called and the client gets a short answer 500.
  using THandler = std::function<THttpResponse(const THttpRequest&)>;

  explicit THttpServer(THandler handler, THttpServerOptions options = {},
                       TClock& clock = SystemClock());
  ~THttpServer();
  THttpServer(const THttpServer&) = delete;
  THttpServer& operator=(const THttpServer&) = delete;

  // Listens on all addresses, of IPv6 and IPv4 where the system has both, and starts the pool. Port
  // 0 takes any free port. Throws ESystemError, whose message contains "in use" when the port is
  // taken, and KZException when the server is active already; the server is then unchanged.
  void Activate(std::uint16_t port);

  // Frees the port, gives the answers that are being written at most StopGrace to finish, closes
  // all connections and joins the pool. Blocks for about StopGrace at most, longer only while a
  // handler runs. Does nothing when the server is inactive.
  void Deactivate();

  [[nodiscard]] bool Active() const noexcept { return Port() != 0; }

  // The port it listens on; 0 when inactive.
  [[nodiscard]] std::uint16_t Port() const noexcept { return FPort.load(); }

 private:
  class TRun;

  const THandler FHandler;
  const THttpServerOptions FOptions;
  TClock& FClock;
  // Atomic: pages show the port while the owner changes it.
  std::atomic<std::uint16_t> FPort = 0;
  // Exists from Activate to Deactivate.
  std::unique_ptr<TRun> FRun;
};

}  // namespace guardian
