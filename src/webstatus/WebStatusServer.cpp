#include "webstatus/WebStatusServer.h"

#include <cassert>
#include <chrono>
#include <string>
#include <utility>

#include "common/Console.h"
#include "common/Exceptions.h"
#include "common/MainThread.h"
#include "common/NeverDestroyed.h"
#include "diagnostics/exception_report.h"

namespace guardian {
namespace {

constexpr std::uint16_t kFirstPort = 8900;
constexpr std::uint16_t kLastPort = 8000;
constexpr std::chrono::milliseconds kToDoInterval{100};
// Short, because the process must end within a second, including a running shell command.
constexpr std::chrono::milliseconds kStopGrace{300};

std::atomic<bool>& Wanted() {
  static std::atomic<bool> wanted = false;
  return wanted;
}

THttpServerOptions ServerOptions() {
  THttpServerOptions options;
  options.StopGrace = kStopGrace;
  options.OnError = [](const std::exception_ptr& error) {
    HandleException(error, TLogToFiles::Yes, "HTTP server");
  };
  return options;
}

std::unique_ptr<TWebStatusServer>& Instance() {
  static TNeverDestroyed<std::unique_ptr<TWebStatusServer>> instance;
  return *instance;
}

}  // namespace

TWebStatusServer::TWebStatusServer(TWebStatusOptions options)
    : FOptions(std::move(options)),
      FHttpServer([this](const THttpRequest& request) { return HandleRequest(request); },
                  ServerOptions()),
      FToDoTimer(
          "TWebStatusServer.FToDoTimer", kToDoInterval, [this] { ToDoTick(); },
          [](const std::exception_ptr& error) {
            PrintLine("Web Status Server Timer Exception: " + MessageOf(error));
            HandleException(error, TLogToFiles::Yes, "Web status server timer");
          }) {}

TWebStatusServer::~TWebStatusServer() {
  assert(IsMainThread());
  FToDoTimer.Stop();
}

void TWebStatusServer::StartServer() {
  assert(IsMainThread());
  for (std::uint16_t port = kFirstPort;; --port) {
    try {
      FHttpServer.Activate(port);
      PrintLine("Web Status Server Active on Port " + std::to_string(port));
      return;
    } catch (const std::exception& error) {
      const std::string message = error.what();
      if (message.find("in use") != std::string::npos && port > kLastPort) continue;
      PrintLine("Web Status Server Cannot Start: " + message);
      return;
    }
  }
}

void TWebStatusServer::StopServer() {
  assert(IsMainThread());
  try {
    FHttpServer.Deactivate();
  } catch (...) {
    PrintLine("Web Status Server Stop Exception: " + CurrentExceptionMessage());
  }
}

THttpResponse TWebStatusServer::HandleRequest(const THttpRequest& request) const {
  return BuildPage(request, {FOptions.Guardian, FOptions.TerminateGuardian, FHttpServer.Port()});
}

void TWebStatusServer::ToDoTick() {
  constexpr int kTimeoutSec = 10;
  FToDoTimer.SetEnabled(false);
  FProcessList.Set(ListDaemonProcesses(FOptions.Shell, kTimeoutSec, TPsOptions::Columns).Text);
  FProcessListTime = SystemClock().Now();
}

void StartWebStatusServer(TWebStatusOptions options) {
  assert(IsMainThread());
  Wanted() = true;
  if (Instance()) return;
  Instance() = std::make_unique<TWebStatusServer>(std::move(options));
  Instance()->StartServer();
}

bool WebStatusServerWanted() noexcept { return Wanted(); }

void FreeWebStatusServer() {
  assert(IsMainThread());
  Wanted() = false;
  if (!Instance()) return;
  try {
    Instance()->StopServer();
    Instance().reset();
  } catch (...) {
    PrintLine("Web Status Server Freeing Exception: " + CurrentExceptionMessage());
  }
}

}  // namespace guardian
