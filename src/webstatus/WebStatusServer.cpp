#include "webstatus/WebStatusServer.h"

#include <cassert>
#include <chrono>
#include <string>
#include <utility>

#include "common/Console.h"
#include "common/Environment.h"
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
constexpr const char* kListenVariable = "VELLUMARK_GUARDIAN_LISTEN";

std::atomic<bool>& Wanted() {
  static std::atomic<bool> wanted = false;
  return wanted;
}

// The addresses of VELLUMARK_GUARDIAN_LISTEN; none, which means all, when it is not set or wrong.
std::vector<std::string> ListenAddresses() {
  std::vector<std::string> addresses;
  for (const std::string& entry : EnvironmentList(kListenVariable)) {
    if (EqualNames(entry, "localhost")) {
      addresses.insert(addresses.end(), {"127.0.0.1", "::1"});
    } else if (IsAddress(entry)) {
      addresses.push_back(entry);
    } else {
      PrintLine(std::string(kListenVariable) + ": \"" + entry +
                "\" is no address; listening on all addresses");
      return {};
    }
  }
  return addresses;
}

THttpServerOptions ServerOptions(const TRequestGuard& guard, std::set<std::string>& told) {
  THttpServerOptions options;
  options.StopGrace = kStopGrace;
  options.Addresses = ListenAddresses();
  options.ExtraHeaders = guard.CookieHeader();
  options.MayBlock = &PageMayBlock;
  options.OnUnusable = [&told](const std::string& reason) {
    if (told.insert(reason).second) PrintLine(reason);
  };
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
                  ServerOptions(FGuard, FUnusable)),
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
  if (const std::string problem = TryToStart(); !problem.empty()) {
    PrintLine("Web Status Server Cannot Start: " + problem);
  }
}

std::string TWebStatusServer::TryToStart() {
  assert(IsMainThread());
  for (std::uint16_t port = kFirstPort;; --port) {
    try {
      FHttpServer.Activate(port);
      PrintLine("Web Status Server Active on Port " + std::to_string(port));
      return {};
    } catch (const std::exception& error) {
      std::string message = error.what();
      if (message.find("in use") != std::string::npos && port > kLastPort) continue;
      return message;
    }
  }
}

bool TWebStatusServer::StopServer() {
  assert(IsMainThread());
  try {
    return FHttpServer.Deactivate();
  } catch (...) {
    PrintLine("Web Status Server Stop Exception: " + CurrentExceptionMessage());
    return true;
  }
}

THttpResponse TWebStatusServer::HandleRequest(const THttpRequest& request) const {
  return BuildPage(request, {FOptions.Guardian, FOptions.TerminateGuardian, FHttpServer.Port(),
                             &FGuard, &FLogFolder});
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

void RetryWebStatusServer() {
  assert(IsMainThread());
  if (Instance() && Instance()->Port() == 0) static_cast<void>(Instance()->TryToStart());
}

bool WebStatusServerGoesOn() {
  assert(IsMainThread());
  return !Instance() || Instance()->GoesOn();
}

bool WebStatusServerWanted() noexcept { return Wanted(); }

void FreeWebStatusServer() {
  assert(IsMainThread());
  Wanted() = false;
  if (!Instance()) return;
  try {
    if (!Instance()->StopServer()) static_cast<void>(Instance().release());
    Instance().reset();
  } catch (...) {
    PrintLine("Web Status Server Freeing Exception: " + CurrentExceptionMessage());
  }
}

}  // namespace guardian
