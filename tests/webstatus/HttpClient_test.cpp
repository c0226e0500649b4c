#include "webstatus/HttpClient.h"

#include <gmock/gmock.h>

#include "support/Crew.h"
#include "support/OpenDescriptors.h"
#include "webstatus/RawClient.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr milliseconds kPatience{kHangLimitMs};

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
  enum class TThen { Close, Hold, Drip };
  const struct {
    std::string Reply;
    TThen Then;
    std::string Outcome, Failure;
    milliseconds Timeout = kPatience;
  } cases[] = {
      {Ok("Content-Length: 5\r\n\r\nhello"), TThen::Hold, "200 hello", ""},
      {Ok("\r\nhello"), TThen::Close, "200 hello", ""},
      {"HTTP/1.0 399 Odd\r\n\r\n", TThen::Close, "399 ", ""},
      {"HTTP/1.1 400 Bad\r\n\r\n", TThen::Close, "", "answered 400"},
      {Ok("Content-Length: 16777216\r\n\r\n" + largest), TThen::Close, "200 16777216", ""},
      {Ok("\r\n" + largest + "x"), TThen::Hold, "", "body limit exceeded"},
      {Ok("A: " + std::string(65'000, 'x') + "\r\n\r\n"), TThen::Close, "200 ", ""},
      {Ok("A: " + std::string(66'000, 'x')), TThen::Hold, "", "header limit exceeded"},
      {"SSH-2.0-OpenSSH\r\n", TThen::Hold, "", "bad version"},
      {Ok("Content-Length: 6\r\n\r\nhello"), TThen::Close, "", "partial message"},
      {"", TThen::Close, "", "end of stream"},
      {"", TThen::Hold, "", "timed out after 50 ms", milliseconds(50)},
      {Ok("\r\n"), TThen::Drip, "", "timed out after 50 ms", milliseconds(50)},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.Reply.substr(0, 80) + item.Failure);
    const TFileDescriptor listener = ListenOnLoopback(0);
    const std::string host = "127.0.0.1:" + std::to_string(PortOf(listener));
    std::string request;
    TCrew server(1, [&](int) {
      TRawClient peer(TFileDescriptor(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC)));
      request = peer.ReadToEmptyLine();
      peer.Send(item.Reply);
      while (item.Then == TThen::Drip && !peer.WaitGone(1)) peer.Send("x");
      if (item.Then == TThen::Hold) peer.ReadToEnd();
    });
    const std::string outcome = Outcome(host + "/status.php", item.Timeout);
    server.Join();
    EXPECT_THAT(outcome, AllOf(StartsWith(item.Outcome), HasSubstr(item.Failure)));
    EXPECT_EQ(outcome.starts_with("HTTP GET " + host + "/status.php: "), item.Outcome.empty());
    EXPECT_EQ(request,
              "GET /status.php HTTP/1.1\r\nHost: " + host + "\r\nConnection: close\r\n\r\n");
  }
  for (const std::string address :
       {"localhost/", "localhost:0/", "localhost:65536/", "localhost:1x/", "[127.0.0.1]:1/",
        "999.0.0.1:1/", "example.invalid:1/", "localhost:1/a b", "localhost:1/\x7f"}) {
    EXPECT_EQ(Outcome(address), "Malformed HTTP address " + address);
  }
  const std::string deaf = "localhost:" + std::to_string(PortOf(ListenOnLoopback(0)));
  EXPECT_EQ(Outcome(deaf), "Unreachable: HTTP GET " + deaf + ": Connection refused (errno 111)");
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST(HttpClientTest, TriesBothLoopbackAddressesForLocalhost) {
  const TFileDescriptor listener(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in6 address{AF_INET6, 0, 0, in6addr_loopback, 0};
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  if (::bind(listener.Get(), generic, sizeof(address)) != 0) GTEST_SKIP() << "no IPv6 here";
  ASSERT_EQ(::listen(listener.Get(), 1), 0);
  const std::string host = "localhost:" + std::to_string(PortOf(listener));
  EXPECT_THAT(Outcome(host, milliseconds(50)), HasSubstr("timed out"));  // Not unreachable.
}

}  // namespace
}  // namespace guardian
