#include "webstatus/HttpClient.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <thread>

#include "support/OpenDescriptors.h"
#include "webstatus/RawClient.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

constexpr milliseconds kPatience{kHangLimitMs};

enum class TAfterReply { Close, Hold, Drip, CloseAtOnce };

// Answers one connection with a prepared text, whatever the request is.
class TCannedServer {
 public:
  TCannedServer(std::string reply, TAfterReply after, int family = AF_INET)
      : FListener(ListenOnLoopback(0, family)),
        FThread([this, text = std::move(reply), after] { Serve(text, after); }) {}
  ~TCannedServer() {
    ::shutdown(FListener.Get(), SHUT_RDWR);
    WaitUntilServed();
  }
  TCannedServer(const TCannedServer&) = delete;
  TCannedServer& operator=(const TCannedServer&) = delete;

  // As in "127.0.0.1:8900".
  [[nodiscard]] std::string HostAndPort(const std::string& host = "127.0.0.1") const {
    sockaddr_in6 address{};  // The port stands at the same place in both families.
    socklen_t length = sizeof(address);
    ::getsockname(FListener.Get(), reinterpret_cast<sockaddr*>(&address), &length);
    return host + ":" + std::to_string(ntohs(address.sin6_port));
  }
  // After the exchange: what the client sent, and how many of its descriptors a child that was
  // started in the middle of the exchange would have inherited.
  [[nodiscard]] const std::string& Request() { return WaitUntilServed(), FRequest; }
  [[nodiscard]] int Leaks() { return WaitUntilServed(), FLeaks; }

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
    for (const int descriptor : OpenDescriptors()) {
      if (::fcntl(descriptor, F_GETFD) == 0 && !FBefore.contains(descriptor)) ++FLeaks;
    }
    while (!reply.empty()) {
      const ssize_t sent = ::send(peer.Get(), reply.data(), reply.size(), MSG_NOSIGNAL);
      if (sent < 0) return;
      reply.remove_prefix(static_cast<std::size_t>(sent));
    }
    while (after == TAfterReply::Drip && ::send(peer.Get(), "x", 1, MSG_NOSIGNAL) == 1) {
      ::poll(nullptr, 0, 1);
    }
    if (after == TAfterReply::Hold) ::recv(peer.Get(), bytes, sizeof(bytes), 0);
  }

  const std::set<int> FBefore = OpenDescriptors();
  TFileDescriptor FListener;
  std::string FRequest;
  int FLeaks = 0;
  std::thread FThread;
};

// The status and the body, of a long one its length; or what was thrown.
std::string Outcome(const std::string& address, milliseconds timeout = kPatience) {
  try {
    const auto [status, body] = HttpGet(address, timeout);
    const bool isLong = body.size() > 100;
    return std::to_string(status) + " " + (isLong ? std::to_string(body.size()) : body);
  } catch (const EHttpUnreachable& error) {
    return "Unreachable: " + error.Message();
  } catch (const SoftException& error) {
    return error.Message();
  }
}

std::string Ok(const std::string& headersAndBody) { return "HTTP/1.1 200 OK\r\n" + headersAndBody; }

TEST(HttpClientTest, ReadsAnswersOrTellsWhyItFailed) {
  const std::set<int> descriptors = OpenDescriptors();
  const std::string largest(16 * 1024 * 1024, 'x');
  const struct {
    std::string Reply;
    TAfterReply After;
    std::string Outcome;
    milliseconds Timeout = kPatience;
  } cases[] = {
      {Ok("Content-Length: 5\r\n\r\nhello"), TAfterReply::Hold, "200 hello"},
      {Ok("Transfer-Encoding: chunked\r\n\r\n2\r\nhe\r\n3\r\nllo\r\n0\r\n\r\n"), TAfterReply::Hold,
       "200 hello"},
      {Ok("\r\nhello"), TAfterReply::Close, "200 hello"},
      {"HTTP/1.0 399 Odd\r\n\r\n", TAfterReply::Close, "399 "},
      {"HTTP/1.1 400 Bad\r\n\r\n", TAfterReply::Close, "answered 400"},
      {Ok("Content-Length: 16777216\r\n\r\n" + largest), TAfterReply::Close, "200 16777216"},
      {Ok("Content-Length: 16777217\r\n\r\n"), TAfterReply::Hold, "body limit exceeded"},
      {Ok("\r\n" + largest + "x"), TAfterReply::Hold, "body limit exceeded"},
      {Ok("A: " + std::string(65'000, 'x') + "\r\n\r\n"), TAfterReply::Close, "200 "},
      {Ok("A: " + std::string(66'000, 'x')), TAfterReply::Hold, "header limit exceeded"},
      {"SSH-2.0-OpenSSH\r\n", TAfterReply::Hold, "bad version"},
      {Ok("Content-Length: 6\r\n\r\nhello"), TAfterReply::Close, "partial message"},
      {"", TAfterReply::Close, "end of stream"},
      {"", TAfterReply::CloseAtOnce, ""},
      {"", TAfterReply::Hold, "timed out after 50 ms", milliseconds(50)},
      {Ok("\r\n"), TAfterReply::Drip, "timed out after 50 ms", milliseconds(50)},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.Reply.substr(0, 80) + item.Outcome);
    TCannedServer server(item.Reply, item.After);
    const std::string host = server.HostAndPort();
    const std::string failure = "HTTP GET " + host + "/status.php: ";
    const std::string outcome = Outcome(host + "/status.php", item.Timeout);
    EXPECT_THAT(outcome, HasSubstr(item.Outcome));
    EXPECT_EQ(outcome.starts_with(failure),
              !item.Outcome.starts_with("200 ") && !item.Outcome.starts_with("399 "));
    if (item.After == TAfterReply::CloseAtOnce) continue;
    EXPECT_EQ(server.Request(),
              "GET /status.php HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(server.Leaks(), 0);
  }
  const std::string deaf = [] { return TCannedServer("", TAfterReply::Hold).HostAndPort(); }();
  EXPECT_EQ(Outcome(deaf), "Unreachable: HTTP GET " + deaf + ": Connection refused (errno 111)");
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST(HttpClientTest, RefusesMalformedAddresses) {
  for (const char* const address :
       {"", "localhost", "localhost/status.php", "localhost:/", "localhost:0/", "localhost:65536/",
        "localhost:8900x/", "localhost:+8900/", ":8900/", "[]:8900/", "[::1:8900/", "::1:8900/",
        "[127.0.0.1]:8900/", "999.0.0.1:8900/", "example.invalid:8900/", "http://localhost:8900/",
        "localhost:8900/a b", "localhost:8900/a\r\nX: y", "localhost:8900/\x7f"}) {
    EXPECT_EQ(Outcome(address), std::string("Malformed HTTP address ") + address);
  }
}

TEST(HttpClientTest, TriesBothLoopbackAddressesForLocalhost) {
  const std::string reply = Ok("Content-Length: 2\r\n\r\nhi");
  EXPECT_EQ(Outcome(TCannedServer(reply, TAfterReply::Close).HostAndPort("localhost")), "200 hi");
  if (!std::filesystem::exists("/proc/net/if_inet6")) GTEST_SKIP() << "no IPv6 here";
  for (const char* const host : {"localhost", "[::1]"}) {
    TCannedServer v6(reply, TAfterReply::Close, AF_INET6);
    EXPECT_EQ(Outcome(v6.HostAndPort(host)), "200 hi");
  }
}

}  // namespace
}  // namespace guardian
