#include "webstatus/HttpClient.h"

#include <sys/socket.h>

#include <array>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "common/Exceptions.h"
#include "common/FileDescriptor.h"

namespace guardian {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using tcp = asio::ip::tcp;
using TErrorCode = boost::system::error_code;

constexpr std::uint64_t kMaxBodyBytes = 16'777'216;
constexpr std::uint32_t kMaxHeaderBytes = 65'536;

struct TAddress {
  std::string HostAndPort;
  std::string Path;
  std::vector<tcp::endpoint> Endpoints;  // Tried in this order.
};

std::optional<std::uint16_t> ParsePort(std::string_view text) {
  std::uint16_t port = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, port);
  if (result.ec != std::errc() || result.ptr != end || port == 0) return std::nullopt;
  return port;
}

// Returns none when the host is neither "localhost" nor a literal address.
std::vector<tcp::endpoint> EndpointsOf(std::string_view host, std::uint16_t port) {
  if (host == "localhost") {
    return {{asio::ip::address_v4::loopback(), port}, {asio::ip::address_v6::loopback(), port}};
  }
  TErrorCode error;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    const std::string literal(host.substr(1, host.size() - 2));
    const auto address = asio::ip::make_address_v6(literal, error);
    if (!error) return {{address, port}};
    return {};
  }
  const auto address = asio::ip::make_address_v4(std::string(host), error);
  if (!error) return {{address, port}};
  return {};
}

// A blank or a control character would end the request line early.
bool IsSafeTarget(std::string_view path) {
  for (const char c : path) {
    if (static_cast<unsigned char>(c) <= ' ' || c == '\x7f') return false;
  }
  return true;
}

TAddress ParseAddress(const std::string& text) {
  const std::size_t slash = std::min(text.find('/'), text.size());
  TAddress address{text.substr(0, slash), text.substr(slash), {}};
  if (address.Path.empty()) address.Path = "/";
  const std::size_t colon = address.HostAndPort.rfind(':');
  if (colon != std::string::npos && IsSafeTarget(address.Path)) {
    const std::string_view hostAndPort = address.HostAndPort;
    const auto port = ParsePort(hostAndPort.substr(colon + 1));
    if (port) address.Endpoints = EndpointsOf(hostAndPort.substr(0, colon), *port);
  }
  if (address.Endpoints.empty()) throw SoftException("Malformed HTTP address " + text);
  return address;
}

// One GET, from connect to the last byte of the answer, on an io_context of its own.
// Owner: HttpGet.
// Threads: only the thread that calls Run.
// Lifetime: the address outlives it.
class TExchange {
 public:
  explicit TExchange(const TAddress& address) : FAddress(address) {
    FRequest.method(http::verb::get);
    FRequest.target(address.Path);
    FRequest.version(11);
    FRequest.set(http::field::host, address.HostAndPort);
    FRequest.set(http::field::connection, "close");
    FParser.header_limit(kMaxHeaderBytes);
    FParser.body_limit(kMaxBodyBytes);
  }

  THttpAnswer Run(std::chrono::milliseconds timeout) {
    ConnectNext();
    FIo.run_for(timeout);
    if (!FOutcome)
      throw SoftException("timed out after " + std::to_string(timeout.count()) + " ms");
    if (!FConnected) throw EHttpUnreachable(ErrorText(*FOutcome));
    if (*FOutcome) throw SoftException(ErrorText(*FOutcome));
    const auto status = static_cast<int>(FParser.get().result_int());
    if (status >= 400) throw SoftException("answered " + std::to_string(status));
    return {status, std::move(FParser.get().body())};
  }

 private:
  void ConnectNext() {
    const tcp::endpoint& endpoint = FAddress.Endpoints[FNextEndpoint++];
    TErrorCode error = OpenSocket(endpoint.protocol());
    if (error) return OnConnect(error);
    FSocket.async_connect(endpoint, [this](const TErrorCode& result) { OnConnect(result); });
  }

  // The socket is made here because those that Asio makes are not close-on-exec.
  TErrorCode OpenSocket(const tcp& protocol) {
    TErrorCode error;
    FSocket.close(error);
    TFileDescriptor socket(::socket(protocol.family(), SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!socket) return {errno, boost::system::system_category()};
    FSocket.assign(protocol, socket.Get(), error);
    if (!error) static_cast<void>(socket.Release());
    return error;
  }

  // After several failures the first is reported: the second may only mean that there is no IPv6.
  void OnConnect(const TErrorCode& error) {
    FConnected = !error;
    if (FConnected) return Send();
    if (!FConnectError) FConnectError = error;
    if (FNextEndpoint < FAddress.Endpoints.size()) return ConnectNext();
    FOutcome = FConnectError;
  }

  void Send() {
    http::async_write(FSocket, FRequest, [this](const TErrorCode& error, std::size_t) {
      // A server may answer and close before it has read everything.
      if (error && error != asio::error::broken_pipe) {
        FOutcome = error;
        return;
      }
      Receive();
    });
  }

  void Receive() {
    http::async_read(FSocket, FBuffer, FParser,
                     [this](const TErrorCode& error, std::size_t) { FOutcome = error; });
  }

  static std::string ErrorText(const TErrorCode& error) {
    if (error.category() == boost::system::system_category()) {
      return SystemErrorText(error.value());
    }
    return error.message();
  }

  const TAddress& FAddress;
  http::request<http::empty_body> FRequest;
  http::response_parser<http::string_body> FParser;
  boost::beast::flat_buffer FBuffer;
  std::size_t FNextEndpoint = 0;
  bool FConnected = false;
  TErrorCode FConnectError;
  std::optional<TErrorCode> FOutcome;
  // Declared last: its destructor frees pending operations, which refer to the fields above.
  asio::io_context FIo{1};
  tcp::socket FSocket{FIo};
};

}  // namespace

THttpAnswer HttpGet(const std::string& address, std::chrono::milliseconds timeout) {
  const TAddress parsed = ParseAddress(address);
  try {
    return TExchange(parsed).Run(timeout);
  } catch (const EHttpUnreachable& error) {
    throw EHttpUnreachable("HTTP GET " + address + ": " + error.Message());
  } catch (const SoftException& error) {
    throw SoftException("HTTP GET " + address + ": " + error.Message());
  } catch (const std::exception& error) {
    throw SoftException("HTTP GET " + address + ": " + error.what());
  }
}

}  // namespace guardian
