#include "webstatus/HttpClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "common/Exceptions.h"
#include "webstatus/RawClient.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

constexpr milliseconds kPatience{kHangLimitMs};
constexpr std::size_t kMaxBody = 16 * 1024 * 1024;

enum class TAfterReply { Close, Hold, Drip, CloseAtOnce };

// Answers one connection with a prepared text, whatever the request is.
class TCannedServer {
 public:
  TCannedServer(std::string reply, TAfterReply after, int family = AF_INET)
      : FListener(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_addr = in6addr_loopback;
    const sockaddr_in v4 = LoopbackAddress(0);
    const bool isV6 = family == AF_INET6;
    const auto* address =
        isV6 ? reinterpret_cast<const sockaddr*>(&v6) : reinterpret_cast<const sockaddr*>(&v4);
    socklen_t length = isV6 ? sizeof(v6) : sizeof(v4);
    if (::bind(FListener.Get(), address, length) != 0 || ::listen(FListener.Get(), 1) != 0) {
      throw std::runtime_error("listen: " + std::to_string(errno));
    }
    length = sizeof(v6);
    // The port stands at the same place in both families.
    ::getsockname(FListener.Get(), reinterpret_cast<sockaddr*>(&v6), &length);
    FPort = ntohs(v6.sin6_port);
    FThread = std::thread([this, text = std::move(reply), after] { Serve(text, after); });
  }
  ~TCannedServer() {
    ::shutdown(FListener.Get(), SHUT_RDWR);
    WaitUntilServed();
  }
  TCannedServer(const TCannedServer&) = delete;
  TCannedServer& operator=(const TCannedServer&) = delete;

  [[nodiscard]] std::string Address(const std::string& host = "127.0.0.1") const {
    return host + ":" + std::to_string(FPort) + "/status.php";
  }
  // After the exchange only.
  [[nodiscard]] const std::string& Request() {
    WaitUntilServed();
    return FRequest;
  }
  [[nodiscard]] int Leaks() {
    WaitUntilServed();
    return FLeaks;
  }

 private:
  void WaitUntilServed() {
    if (FThread.joinable()) FThread.join();
  }

  void Serve(std::string_view reply, TAfterReply after) {
    const TFileDescriptor peer(::accept4(FListener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!peer || after == TAfterReply::CloseAtOnce) return;
    char bytes[4096];
    while (FRequest.find("\r\n\r\n") == std::string::npos) {
      const ssize_t got = ::recv(peer.Get(), bytes, sizeof(bytes), 0);
      if (got <= 0) return;
      FRequest.append(bytes, static_cast<std::size_t>(got));
    }
    NoteLeaks();
    while (!reply.empty()) {
      const ssize_t sent = ::send(peer.Get(), reply.data(), reply.size(), MSG_NOSIGNAL);
      if (sent < 0) return;
      reply.remove_prefix(static_cast<std::size_t>(sent));
    }
    if (after == TAfterReply::Drip) {
      while (::send(peer.Get(), "x", 1, MSG_NOSIGNAL) == 1) ::usleep(1000);
    }
    if (after == TAfterReply::Hold) ::recv(peer.Get(), bytes, sizeof(bytes), 0);
  }

  // In the middle of the exchange: what a child that is started now would inherit.
  void NoteLeaks() {
    for (const int descriptor : OpenDescriptors()) {
      const int flags = ::fcntl(descriptor, F_GETFD);
      if (flags >= 0 && !(flags & FD_CLOEXEC) && !FBefore.contains(descriptor)) ++FLeaks;
    }
  }

  const std::set<int> FBefore = OpenDescriptors();
  TFileDescriptor FListener;
  std::uint16_t FPort = 0;
  std::string FRequest;
  int FLeaks = 0;
  std::thread FThread;
};

std::string FailureOf(const std::string& address, milliseconds timeout = kPatience) {
  try {
    return "no failure, but " + std::to_string(HttpGet(address, timeout).Status);
  } catch (const SoftException& error) {
    return error.Message();
  }
}

std::string Ok(const std::string& headersAndBody) { return "HTTP/1.1 200 OK\r\n" + headersAndBody; }

TEST(HttpClientTest, ReadsAnswersOfEveryFraming) {
  const struct {
    std::string Reply, Body;
    TAfterReply After;
  } cases[] = {
      {Ok("Content-Length: 5\r\n\r\nhello"), "hello", TAfterReply::Hold},
      {Ok("Transfer-Encoding: chunked\r\n\r\n2\r\nhe\r\n3\r\nllo\r\n0\r\n\r\n"), "hello",
       TAfterReply::Hold},
      {Ok("\r\nhello"), "hello", TAfterReply::Close},
      {"HTTP/1.0 200 OK\r\n\r\n", "", TAfterReply::Close},
      {Ok("Content-Length: 16777216\r\n\r\n" + std::string(kMaxBody, 'x')),
       std::string(kMaxBody, 'x'), TAfterReply::Close},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.Reply.substr(0, 80));
    TCannedServer server(item.Reply, item.After);
    const THttpAnswer answer = HttpGet(server.Address(), kPatience);
    EXPECT_EQ(answer.Status, 200);
    EXPECT_TRUE(answer.Body == item.Body) << answer.Body.size();
    EXPECT_TRUE(server.Request().starts_with("GET /status.php HTTP/1.1\r\nHost: 127.0.0.1:"));
    EXPECT_EQ(server.Leaks(), 0);
  }
}

TEST(HttpClientTest, TellsWhyItFailed) {
  const std::set<int> descriptors = OpenDescriptors();
  const struct {
    std::string Reply;
    TAfterReply After;
    std::string Message;
    milliseconds Timeout = kPatience;
  } cases[] = {
      {"HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n", TAfterReply::Hold, "answered 404"},
      {"HTTP/1.1 400 Bad\r\n\r\n", TAfterReply::Close, "answered 400"},
      {"SSH-2.0-OpenSSH\r\n", TAfterReply::Hold, "bad version"},
      {Ok("Content-Length: 6\r\n\r\nhello"), TAfterReply::Close, "partial message"},
      {"", TAfterReply::Close, "end of stream"},
      {"", TAfterReply::CloseAtOnce, "HTTP GET 127.0.0.1:"},
      {Ok("Content-Length: 16777217\r\n\r\n"), TAfterReply::Hold, "body limit exceeded"},
      {Ok("\r\n" + std::string(kMaxBody + 1, 'x')), TAfterReply::Hold, "body limit exceeded"},
      {Ok("A: " + std::string(70'000, 'x')), TAfterReply::Hold, "header limit exceeded"},
      {"", TAfterReply::Hold, "timed out after 50 ms", milliseconds(50)},
      {Ok("\r\n"), TAfterReply::Drip, "timed out after 50 ms", milliseconds(50)},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.Reply.substr(0, 80) + item.Message);
    TCannedServer server(item.Reply, item.After);
    EXPECT_THAT(FailureOf(server.Address(), item.Timeout), HasSubstr(item.Message));
  }
  const std::string deaf = [] { return TCannedServer("", TAfterReply::Hold).Address(); }();
  EXPECT_THAT(FailureOf(deaf), HasSubstr("Connection refused (errno 111)"));
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST(HttpClientTest, RefusesMalformedAddresses) {
  for (const char* const address :
       {"", "localhost", "localhost/status.php", "localhost:/", "localhost:0/", "localhost:65536/",
        "localhost:8900x/", "localhost:+8900/", ":8900/", "[]:8900/", "[::1:8900/", "::1:8900/",
        "[127.0.0.1]:8900/", "999.0.0.1:8900/", "example.invalid:8900/", "http://localhost:8900/",
        "localhost:8900/a b", "localhost:8900/a\r\nX: y"}) {
    EXPECT_EQ(FailureOf(address), std::string("Malformed HTTP address ") + address);
  }
}

TEST(HttpClientTest, TriesBothLoopbackAddressesForLocalhost) {
  TCannedServer v4(Ok("Content-Length: 2\r\n\r\nv4"), TAfterReply::Close);
  EXPECT_EQ(HttpGet(v4.Address("localhost"), kPatience).Body, "v4");
  if (!std::filesystem::exists("/proc/net/if_inet6")) GTEST_SKIP() << "no IPv6 here";
  for (const char* const host : {"localhost", "[::1]"}) {
    TCannedServer v6(Ok("Content-Length: 2\r\n\r\nv6"), TAfterReply::Close, AF_INET6);
    EXPECT_EQ(HttpGet(v6.Address(host), kPatience).Body, "v6");
  }
}

}  // namespace
}  // namespace guardian
