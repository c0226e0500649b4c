#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <set>

#include "common/Clock.h"
#include "common/SharedText.h"
#include "common/Timer.h"
#include "guardian/process/ProcessListing.h"
#include "webstatus/HttpServer.h"
#include "webstatus/StatusPages.h"

namespace guardian {

// What the server uses. Everything outlives it.
struct TWebStatusOptions {
  TGuardianControl* Guardian = nullptr;
  std::function<void()> TerminateGuardian;
  TShell Shell;
};

// The status and control pages over HTTP.
// Owner: StartWebStatusServer makes it and FreeWebStatusServer frees it; a test may make its own.
// Threads: the main thread calls the constructor, StartServer, TryToStart, StopServer and the
// destructor.
// Requests run on the HTTP server's threads.
// Lifetime: the destructor joins the HTTP server's threads and the timer's.
class TWebStatusServer {
 public:
  explicit TWebStatusServer(TWebStatusOptions options);
  ~TWebStatusServer();
  TWebStatusServer(const TWebStatusServer&) = delete;
  TWebStatusServer& operator=(const TWebStatusServer&) = delete;

  // Listens on the first free port from 8900 down to 8000. On failure it prints a line and the
  // server stays inactive.
  void StartServer();
  // The same, but for the line: returns the reason of the failure, empty for none.
  std::string TryToStart();

  // Frees the port. Waits at most half a second for answers that are being sent. Returns false when
  // a page that reads files stands still: this object must then live as long as the process.
  [[nodiscard]] bool StopServer();

  // Whether the server's thread goes on, see THttpServer::GoesOn. Main thread.
  [[nodiscard]] bool GoesOn() { return FHttpServer.GoesOn(); }

  // The port on which it listens; 0 while inactive. Any thread.
  [[nodiscard]] std::uint16_t Port() const noexcept { return FHttpServer.Port(); }

  // Takes a new process list a tenth of a second later, on a thread of its own, in at most twice 10
  // seconds. The Guardian itself never calls it. Any thread.
  void RequestProcessList() { FToDoTimer.SetEnabled(true); }

  // The last list, and the local time at which it was taken: zero before the first. Any thread.
  [[nodiscard]] TSharedText::TText ProcessList() const { return FProcessList.Get(); }
  [[nodiscard]] TDateTime ProcessListTime() const noexcept { return FProcessListTime.load(); }

 private:
  THttpResponse HandleRequest(const THttpRequest& request) const;
  void ToDoTick();

  const TWebStatusOptions FOptions;
  const TRequestGuard FGuard = MakeRequestGuard();
  const TLogFolder FLogFolder;
  // Why addresses are not listened on: told once, however often the start is tried. Main thread.
  std::set<std::string> FUnusable;
  THttpServer FHttpServer;
  TSharedText FProcessList;
  // Atomic: the timer's thread writes it, any thread reads it.
  std::atomic<TDateTime> FProcessListTime = 0;
  // RequestProcessList enables it; each tick disables it again.
  TKZTimer FToDoTimer;
};

// Makes and starts the server of this process, unless it exists. Main thread.
void StartWebStatusServer(TWebStatusOptions options);

// Starts that server if it could not start before; says nothing of another failure. Main thread.
void RetryWebStatusServer();

// Stops and frees that server, if it exists. Main thread.
void FreeWebStatusServer();

// Whether the thread of that server goes on, see THttpServer::GoesOn; true when there is none. Main
// thread.
[[nodiscard]] bool WebStatusServerGoesOn();

// True from StartWebStatusServer to FreeWebStatusServer, even if the server could not start. Any
// thread.
[[nodiscard]] bool WebStatusServerWanted() noexcept;

}  // namespace guardian
