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
  std::string Query;         // What follows the "?", as it was sent.
  std::string SecFetchSite;  // The header of that name, empty when there was none.
};

struct THttpResponse {
  int Status = 200;  // 200 to 599.
  // In these two, control characters are sent as "_".
  std::string ContentType = "text/html";
  std::string ContentDisposition = "inline";
  std::string Body;
  // What follows Body: long texts that others share, sent without being copied. None of them null.
  std::vector<TSharedText::TText> Tail;
  // When set it is sent instead of both: exactly FileSize bytes from its start, chunk by chunk. A
  // file that turns out to be shorter ends the connection in the middle of the answer.
  TFileDescriptor File;
  std::uint64_t FileSize = 0;
};

struct THttpServerOptions {
  std::string ThreadName = "HTTPServerThread";  // " #1" and so on is appended.
  std::size_t Threads = 2;
  std::size_t MaxConnections = 256;
  std::size_t MaxHeaderBytes = 65'536;
  // The whole header must arrive in this time from the connect or from the previous answer on.
  std::chrono::milliseconds HeaderTimeout{10'000};
  // The longest time in which a client takes nothing of its answer.
  std::chrono::milliseconds WriteTimeout{30'000};
  // How long a client may take to close its end after the last answer of a connection.
  std::chrono::milliseconds CloseTimeout{2'000};
  // The deadlines above are looked at once an interval, while there are connections.
  std::chrono::milliseconds SweepInterval{250};
  // How long Deactivate waits for answers that are being written.
  std::chrono::milliseconds StopGrace{500};
  // Is told, in a pool thread, what a handler threw and what else went wrong. Standard error when
  // empty.
  std::function<void(std::exception_ptr)> OnError;
};

// An HTTP/1.1 server for short answers and for files: GET and HEAD, keep-alive, pipelining.
// Owner: whoever serves pages; the destructor deactivates.
// Threads: Activate, Deactivate and the destructor by one thread at a time, and never by the
// handler; Active and Port by any thread. The handler runs in the threads of a small fixed pool,
// several calls at once, so it must not wait for anything.
// Lifetime: the clock and what the handler uses outlive the server. Deactivate joins the pool.
class THttpServer {
 public:
  // What the handler throws goes to OnError, and the client gets a short answer 500.
  using THandler = std::function<THttpResponse(const THttpRequest&)>;

  explicit THttpServer(THandler handler, THttpServerOptions options = {},
                       TClock& clock = SystemClock());
  ~THttpServer();
  THttpServer(const THttpServer&) = delete;
  THttpServer& operator=(const THttpServer&) = delete;

  // Listens on all addresses, IPv6 and IPv4 where the system has both, and starts the pool. Port 0
  // takes any free one. Throws ESystemError, whose message contains "in use" for a port that is
  // taken, and KZException when the server is active already; it is then as before.
  void Activate(std::uint16_t port);

  // Frees the port, lets answers that are being written finish for at most StopGrace, closes
  // everything and joins the pool: about StopGrace in all, longer only when a handler is. Does
  // nothing when the server is inactive.
  void Deactivate();

  [[nodiscard]] bool Active() const noexcept { return Port() != 0; }

  // The port it listens on; 0 when inactive.
  [[nodiscard]] std::uint16_t Port() const noexcept { return FPort.load(); }

 private:
  class TRun;

  const THandler FHandler;
  const THttpServerOptions FOptions;
  TClock& FClock;
  std::atomic<std::uint16_t> FPort = 0;  // Atomic: pages show it while the owner changes it.
  std::unique_ptr<TRun> FRun;            // From Activate to Deactivate.
};

}  // namespace guardian
