#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "common/Clock.h"
#include "common/SharedText.h"
#include "common/Timer.h"
#include "guardian/process/ProcessListing.h"
#include "webstatus/HttpServer.h"
#include "webstatus/StatusPages.h"

namespace guardian {

// What the server is started with. Everything outlives it.
struct TWebStatusOptions {
  TGuardianControl* Guardian = nullptr;
  std::function<void()> TerminateGuardian;
  TShell Shell;
};

// The status and control pages over HTTP.
// Owner: StartWebStatusServer and FreeWebStatusServer, or a test.
// Threads: StartServer, StopServer and the destructor by the main thread; requests run on the HTTP
// server's threads.
class TWebStatusServer {
 public:
  explicit TWebStatusServer(TWebStatusOptions options);
  ~TWebStatusServer();
  TWebStatusServer(const TWebStatusServer&) = delete;
  TWebStatusServer& operator=(const TWebStatusServer&) = delete;

  // Listens on the first free port from 8900 down to 8000. A failure is a printed line; the
  // server then stays inactive.
  void StartServer();

  // Frees the port and lets answers under way end, for at most half a second.
  void StopServer();

  // The port it listens on; 0 while inactive. Any thread.
  [[nodiscard]] std::uint16_t Port() const noexcept { return FHttpServer.Port(); }

  // Has the process list taken anew, a tenth of a second later and for at most twice 10 seconds, on
  // a thread of its own. Any thread.
  void RequestProcessList() { FToDoTimer.SetEnabled(true); }

  // What was taken last, and when by local time; zero before the first. Any thread.
  [[nodiscard]] TSharedText::TText ProcessList() const { return FProcessList.Get(); }
  [[nodiscard]] TDateTime ProcessListTime() const noexcept { return FProcessListTime.load(); }

 private:
  THttpResponse HandleRequest(const THttpRequest& request) const;
  void ToDoTick();

  const TWebStatusOptions FOptions;
  THttpServer FHttpServer;
  TSharedText FProcessList;
  std::atomic<TDateTime> FProcessListTime = 0;  // Atomic: as the text, for any reader.
  // Disables itself; nothing asks for it yet but RequestProcessList.
  TKZTimer FToDoTimer;
};

// Makes and starts the process's server, unless there is one. Main thread.
void StartWebStatusServer(TWebStatusOptions options);

// Stops and frees it; nothing when there is none. Main thread.
void FreeWebStatusServer();

// Whether the server is meant to be there, be it up or not. Any thread.
[[nodiscard]] bool WebStatusServerWanted() noexcept;

}  // namespace guardian
