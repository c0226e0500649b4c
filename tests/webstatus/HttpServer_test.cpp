#include "webstatus/HttpServer.h"

#include <dlfcn.h>
#include <malloc.h>

#include "support/TestSupport.h"
#include "webstatus/HttpClient.h"
#include "webstatus/RawClient.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

const std::string kEnd = " HTTP/1.1\r\n\r\n";
const std::string kGet = "GET /" + kEnd;
const std::string kGetBig = "GET /big" + kEnd;
const std::string kGetFile = "GET /file" + kEnd;
const std::string kNever = "GET /never" + kEnd;

std::string Pattern(std::size_t bytes) {
  std::string text(bytes, '\0');
  for (std::size_t i = 0; i < bytes; ++i) text[i] = static_cast<char>(i * 7 + i / 251);
  return text;
}

// So many connections in a row cannot be accepted, for want of a descriptor.
std::atomic<int> acceptsThatFail = 0;
// Who connects seems to come from here, the last number of 192.0.2.0; 0 for this machine.
std::atomic<int> stranger = 0;
// How often the memory of a flood was given back.
std::atomic<int> timesTrimmed = 0;

// A text that is more than all socket buffers hold, and that answers share.
const TSharedText::TText& Big() {
  static const auto big = MakeText(Pattern(12 * 1024 * 1024));
  return big;
}

std::string BigPage() { return "hello" + *Big() + std::string(98, '|'); }

// The open descriptors that are none of these, and that a child would inherit.
std::ptrdiff_t Inherited(const std::set<int>& known) {
  const std::set<int> open = OpenDescriptors();
  return std::count_if(open.begin(), open.end(), [&known](int descriptor) {
    return !known.contains(descriptor) && ::fcntl(descriptor, F_GETFD) == 0;
  });
}

class HttpServerTest : public testing::Test {
 protected:
  ~HttpServerTest() override {
    FServer.reset();
    EXPECT_EQ(FErrors, FExpectedErrors) << FLastError.Copy();
    EXPECT_EQ(OpenDescriptors(), FDescriptors);
    EXPECT_EQ(Big().use_count(), 1);
  }

  // No time limit is reached unless the test moves the clock.
  void Start() { StartOn(FClock); }

  void StartOn(TClock& clock) {
    FOptions.SweepInterval = milliseconds(5);
    FOptions.OnError = [this](const std::exception_ptr& error) {
      FLastError.Set(MessageOf(error));
      ++FErrors;
    };
    FServer = std::make_unique<THttpServer>(
        [this](const THttpRequest& request) { return Answer(request); }, FOptions, clock);
    FServer->Activate(0);
  }

  // A client whose small receive buffer is full long before a big answer ends.
  std::unique_ptr<TRawClient> Client(const std::string& bytes = "") {
    auto client = std::make_unique<TRawClient>(FServer->Port(), 4096);
    client->Send(bytes);
    return client;
  }

  // Returns when the one thread has done everything that was asked of it before.
  void Sync() { ASSERT_EQ(TRawClient(FServer->Port()).Get("/").Body, "hello"); }

  THttpResponse Answer(const THttpRequest& request) {
    THttpResponse response;
    const std::string& path = request.Path;
    const std::string site(request.Header("Sec-Fetch-Site").value_or(""));
    response.Body = "hello";
    if (path == "/throw") throw KZException("no page today");
    if (path == "/big") {
      response.Tail.assign(99, MakeText("|"));  // More than the kernel takes at a time.
      response.Tail.front() = Big();
    }
    if (path == "/inherited") response.Body = std::to_string(Inherited(FDescriptors));
    if (path == "/echo") response.Body = request.Query + "|" + site;
    if (path.starts_with("/path")) response.Body = path;
    if (path == "/wait") {
      ++FWaiting;
      FReleased.WaitFor(milliseconds(kHangLimitMs));
      --FWaiting;
    }
    if (path.starts_with("/status")) response.Status = std::stoi(path.substr(7));
    if (path == "/forge") {
      response.ContentType = "text/css\nX-Two: 2";
      response.ContentDisposition = "inline; filename=\"a\r\nX-One: 1\r\n\r\n\x7f\"";
    }
    if (path == "/file") {
      const std::string file = FFolder.Path("log.html");
      response.File = TFileDescriptor(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
      response.FileSize = FFileSize;
    }
    return response;
  }

  std::set<int> FDescriptors = OpenDescriptors();
  TTempFolder FFolder;
  std::atomic<std::uint64_t> FFileSize = Big()->size();
  TFakeClock FClock;
  THttpServerOptions FOptions;
  std::atomic<int> FWaiting = 0;
  TKZEvent FReleased{"Released", TEventReset::Manual};
  std::atomic<int> FErrors = 0;
  int FExpectedErrors = 0;
  TSharedText FLastError;
  std::unique_ptr<THttpServer> FServer;
};

TEST_F(HttpServerTest, AnswersEachRequestAndClosesAfterTheLast) {
  Start();
  const std::string bad = "Bad Request\n";
  const std::string failed = "Internal Server Error\n";
  const std::string refused = "Method Not Allowed\n";
  const std::tuple<std::string, int, std::string, bool> cases[] = {
      {"GET /path HTTP/1.1\r\nHost: x\r\n\r\n", 200, "/path", false},
      {"GET /path/%41%2e%2E/%zz%4" + kEnd, 200, "/path/A../%zz%4", false},
      {"GET /path%4%%41" + kEnd, 200, "/path%4%A", false},
      {"GET http://host?/path" + kEnd, 200, "hello", false},
      {"GET /path%3Fa?b" + kEnd, 200, "/path?a", false},
      {"GET HTTP://host:80/path" + kEnd, 200, "/path", false},
      {"GET /echo?a=%20b?c" + kEnd, 200, "a=%20b?c|", false},
      {"GET /echo? HTTP/1.1\r\nsec-fetch-SITE:  x-y \r\nX: y\r\n\r\n", 200, "|x-y", false},
      {"GET /status599" + kEnd, 599, "hello", false},
      {"GET /status204" + kEnd, 204, "", false},
      {"GET /status199" + kEnd, 500, failed, false},
      {"GET /status600" + kEnd, 500, failed, false},
      {"GET /throw" + kEnd, 500, failed, false},
      {"GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", 200, "hello", false},
      {"GET / HTTP/1.0\r\n\r\n" + kNever, 200, "hello", true},
      {"GET / HTTP/1.1\r\nConnection: close\r\n\r\n" + kNever, 200, "hello", true},
      {"GET / HTTP/1.1\r\nContent-Length: 24\r\n\r\n" + kNever, 200, "hello", true},
      {"POST / HTTP/1.1\r\nContent-Length: 500000\r\n\r\n" + Pattern(500'000), 405, refused, true},
      {std::string("\x16\x03\x01\x02\x00\x01\x00", 7), 400, bad, true},
      {"GET / HTTP/1.1\r\nHost: x\r\nHost: x\r\n\r\n" + kNever, 400, bad, true},
      {"GET / HTTP/1.1\r\nOrigin: http://x\r\nORIGIN: null\r\n\r\n" + kNever, 400, bad, true},
      {"GET / HTTP/1.1\r\nTransfer-Encoding: x, chunked\r\n\r\n" + kNever, 400, bad, true},
  };
  for (const auto& [request, status, body, closes] : cases) {
    SCOPED_TRACE(request.substr(0, 80));
    const auto client = Client(request);
    const TRawReply reply = client->ReadReply();
    EXPECT_EQ(std::pair(reply.Status(), reply.Body), std::pair(status, body));
    EXPECT_TRUE(reply.Has(closes ? "Connection: close" : "Connection: keep-alive"));
    EXPECT_EQ(reply.Has("Content-Type: text/plain"), body.ends_with("\n"));
    EXPECT_EQ(reply.Has("Content-Length: " + std::to_string(body.size())), status != 204);
    EXPECT_EQ(reply.Has("Allow: GET, HEAD"), status == 405);
    EXPECT_EQ(closes ? client->ReadToEnd() : client->Get("/").Body, closes ? "" : "hello");
    EXPECT_FALSE(client->WasReset());
  }
  EXPECT_EQ(FLastError.Copy(), "no page today");
  FExpectedErrors = 3;
  // A body without an end is not read for ever.
  const auto endless = Client("POST / HTTP/1.1\r\nContent-Length: 999999999\r\n\r\n" + *Big());
  EXPECT_TRUE(endless->WasReset());
}

TEST_F(HttpServerTest, LimitsTheWholeHeaderNotItsLines) {
  Start();
  constexpr std::size_t kLimit = 65'536;
  const std::string begin = "GET / HTTP/1.1\r\nA: ";
  std::string lines = begin;
  while (lines.size() < kLimit - 100) lines += "b\r\nC: ";
  for (const std::string& text : {begin, lines}) {
    const std::string atLimit = text + std::string(kLimit - text.size() - 4, 'x') + "\r\n\r\n";
    const auto client = Client(kGet + atLimit + atLimit + text + "y" + atLimit.substr(text.size()));
    for (const int status : {200, 200, 200, 431}) EXPECT_EQ(client->ReadReply().Status(), status);
    EXPECT_EQ(client->ReadToEnd(), "");
    // A header without an end is refused at the limit too.
    const auto endless = Client(text + std::string(kLimit - text.size(), 'x'));
    EXPECT_EQ(endless->ReadReply().Status(), 431);
  }
}

TEST_F(HttpServerTest, AnswersPipelinedRequestsInOrderWithExactlyThePromisedBytes) {
  Start();
  FFolder.Write("log.html", *Big());
  const std::string heads = "HEAD /big" + kEnd + "HEAD /file" + kEnd;
  TRawClient client(FServer->Port());
  for (const std::size_t size :
       {Big()->size(), Big()->size() - 1, std::size_t{0}, std::size_t{9}}) {
    FFileSize = size;
    client.Send("GET /echo?q" + kEnd + heads + kGetFile + kGetBig + kGetFile);
    EXPECT_EQ(client.ReadReply().Body, "q|");
    EXPECT_TRUE(client.ReadHead().Has("Content-Length: 12583015"));
    EXPECT_TRUE(client.ReadHead().Has("Content-Length: " + std::to_string(size)));
    EXPECT_EQ(client.ReadReply().Body, Big()->substr(0, size));
    EXPECT_EQ(client.ReadReply().Body, BigPage());
    EXPECT_EQ(client.ReadReply().Body, Big()->substr(0, size));
  }
  FFileSize = Big()->size() + 1;  // It has shrunk since.
  client.Send(kGetFile + kNever);
  EXPECT_EQ(client.ReadReply().Body, *Big());
  const auto refused = Client("HEAD /" + kEnd + "POST /" + kEnd);
  refused->ReadHead();
  EXPECT_EQ(refused->ReadReply().Body, "Method Not Allowed\n");
  EXPECT_TRUE(Eventually([] { return timesTrimmed > 0; }));
}

TEST_F(HttpServerTest, SendsOneFixedSetOfHeaders) {
  Start();
  EXPECT_EQ(ReplaceAll(Client()->Get("/forge").Head, "\r\n", "|"),
            "HTTP/1.1 200 OK|Date: Sat, 21 Nov 2026 06:00:00 GMT|Content-Type: text/css_X-Two: "
            "2|Content-Disposition: inline; "
            "filename=\"a__X-One: 1_____\"|Content-Length: 5|Connection: keep-alive|Cache-Control: "
            "no-store|X-Content-Type-Options: nosniff|Content-Security-Policy: default-src 'none'; "
            "style-src 'unsafe-inline'; frame-ancestors 'none'; base-uri 'none'; form-action "
            "'none'|Referrer-Policy: same-origin|Cross-Origin-Resource-Policy: same-origin||");
}

TEST_F(HttpServerTest, TellsOfALastingFailureToAcceptOnceAndGoesOn) {
  Start();
  for (const int failures : {3, 2}) {
    acceptsThatFail = failures;
    EXPECT_EQ(TRawClient(FServer->Port()).Get("/").Body, "hello");
    EXPECT_EQ(FErrors, ++FExpectedErrors) << failures;
  }
  EXPECT_EQ(FLastError.Copy(), "Accept HTTP connection: Too many open files (errno 24)");
}

// Each limit is seen from the sweep that closes an older neighbour at its own limit.
TEST_F(HttpServerTest, GivesAHeaderTenSecondsWhateverDripsInAndAnEndTwo) {
  Start();
  TRawClient silent(FServer->Port());
  Sync();
  FClock.Advance(milliseconds(1));
  TRawClient dripping(FServer->Port());
  TRawClient late(FServer->Port());
  for (const char* const bytes : {"GET ", "/ HT", "TP/1"}) {
    Sync();
    FClock.Advance(milliseconds(2'666));
    dripping.Send(bytes);
    late.Send(bytes);
  }
  Sync();
  FClock.Advance(milliseconds(2));
  const auto last = Client("GET / HTTP/1.0\r\n\r\n");
  EXPECT_THAT(last->ReadToEnd(), EndsWith("hello"));
  Sync();
  FClock.Advance(milliseconds(1'999));  // 10.000
  EXPECT_EQ(silent.ReadToEnd(), "");
  last->Send("x");
  late.Send(".1\r\n\r\n");
  EXPECT_EQ(late.ReadReply().Body, "hello");
  Sync();
  EXPECT_FALSE(last->WasReset());
  FClock.Advance(milliseconds(1));
  EXPECT_EQ(dripping.ReadToEnd(), "");
  EXPECT_TRUE(Eventually([&] { return last->Send("x"), last->WasReset(); }));
  EXPECT_EQ(late.Get("/").Body, "hello");  // The time begins again with each answer.
  // One that comes after all have gone, and the sweep has ended, is watched too.
  for (int round = 0; round < 3; ++round) {
    TRawClient next(FServer->Port());
    Sync();
    FClock.Advance(milliseconds(10'000));
    EXPECT_EQ(next.ReadToEnd() + late.ReadToEnd(), "") << round;
  }
}

// Ninety seconds without progress are too long, from the last look on at which there was some;
// three minutes with some are not.
TEST_F(HttpServerTest, GivesUpAClientThatTakesNothing) {
  Start();
  const auto slow = Client(kGetBig);
  const auto stuck = Client(kGetBig);
  TRawReply big = slow->ReadHead();
  EXPECT_EQ(stuck->ReadHead().Status(), 200);
  for (int round = 0; round < 3; ++round) {
    slow->ReadBody(big, Big()->size() / 4);
    Sync();
    EXPECT_TRUE(round == 2 || !stuck->WaitGone(0));
    FClock.Advance(seconds(60));
  }
  EXPECT_TRUE(Eventually([&] {
    slow->ReadBody(big, 16'384);
    FClock.Advance(seconds(10));
    return stuck->WaitGone(10);
  }));
  slow->ReadBody(big);
  EXPECT_EQ(big.Body, BigPage());
  EXPECT_LT(stuck->ReadToEnd().size(), Big()->size());
}

// A busy one stays, an answer makes a connection the youngest, half a request does not. What an
// idle one has sent costs no memory any more.
TEST_F(HttpServerTest, SendsTheOldestIdleConnectionAwayAbove256) {
  Start();
  FFolder.Write("log.html", *Big());
  FFileSize = 65'536;
  const auto busy = Client(kGetBig);
  TRawReply big = busy->ReadHead();
  std::vector<std::unique_ptr<TRawClient>> idle(255);
  for (auto& client : idle) client = Client();
  const auto before = ::mallinfo2().uordblks;
  for (auto& client : idle) EXPECT_EQ(client->Get("/file").Body.size(), FFileSize);
  EXPECT_LT(::mallinfo2().uordblks, before + idle.size() * FFileSize / 2);
  idle[1]->Send("GET ");
  EXPECT_EQ(idle[0]->Get("/").Body, "hello");
  EXPECT_FALSE(idle[1]->WaitGone(0));
  for (const std::size_t oldest : {1U, 2U, 3U}) {
    idle.push_back(Client(kGet));
    EXPECT_EQ(idle.back()->ReadReply().Body, "hello");
    EXPECT_EQ(idle[oldest]->ReadToEnd(), "");
  }
  for (const std::size_t younger : {0U, 4U}) EXPECT_EQ(idle[younger]->Get("/").Body, "hello");
  busy->ReadBody(big);
  EXPECT_EQ(big.Body, BigPage());
}

TEST_F(HttpServerTest, HasANewConnectionWaitUntilTheLongestAnswerHasTakenTenSeconds) {
  FOptions.MaxConnections = 2;
  StartOn(FClock);
  const auto longest = Client(kGetBig);
  longest->ReadHead();
  FClock.Advance(milliseconds(1));
  const auto younger = Client(kGetBig);
  TRawReply big = younger->ReadHead();
  const auto newcomer = Client(kGet);
  FClock.Advance(milliseconds(9'999));
  EXPECT_FALSE(newcomer->WaitGone(300));
  FClock.Advance(milliseconds(1));
  EXPECT_EQ(newcomer->ReadReply().Body, "hello");
  longest->ReadToEnd();
  EXPECT_TRUE(longest->WasReset());
  younger->ReadBody(big);
  EXPECT_EQ(big.Body, BigPage());
}

// The commands of this machine find a place whatever others do.
TEST_F(HttpServerTest, GivesAnotherMachineItsPlacesAndWhoIsHereTheirs) {
  FOptions.MaxConnections = 5;
  FOptions.MaxConnectionsOfAPeer = 2;
  StartOn(FClock);
  std::vector<std::unique_ptr<TRawClient>> clients;
  for (const int from : {1, 1, 2, 2, 0}) {
    stranger = from;
    clients.push_back(Client(kGetBig));
    EXPECT_EQ(clients.back()->ReadHead().Status(), 200);
    FClock.Advance(milliseconds(1));
  }
  stranger = 2;
  EXPECT_EQ(Client()->ReadToEnd(), "") << "one place too many";
  stranger = 0;
  for (const std::size_t longest : {0U, 1U, 2U}) {
    clients.push_back(Client(kGetBig));
    EXPECT_EQ(clients.back()->ReadHead().Status(), 200);
    clients[longest]->ReadToEnd();
    EXPECT_TRUE(clients[longest]->WasReset() && !clients[3]->WaitGone(0)) << longest;
  }
  for (const auto& client : clients) client->Reset();
}

// As a log folder on a dead disk does: two such pages stand still, and nothing else does.
TEST_F(HttpServerTest, KeepsPagesThatMayBlockFromTheOthersAndFromTheEnd) {
  FOptions.MayBlock = [](const THttpRequest& request) { return request.Path == "/wait"; };
  FOptions.StopGrace = milliseconds(10);
  FFolder.Write("log.html", "");
  StartOn(FClock);
  auto one = Client("GET /wait" + kEnd);
  EXPECT_TRUE(Eventually([this] { return FWaiting == 1; }));
  FClock.Advance(milliseconds(6'000));
  auto two = Client("GET /wait" + kEnd);
  EXPECT_TRUE(Eventually([this] { return FWaiting == 2; }));
  FClock.Advance(milliseconds(5'000));
  EXPECT_EQ(Client(kGet)->ReadReply().Body, "hello");
  FClock.Advance(milliseconds(1));
  auto three = Client("HEAD /wait" + kEnd + kGet);
  EXPECT_EQ(three->ReadHead().Status(), 503);
  EXPECT_EQ(three->ReadReply().Body, "hello");
  EXPECT_EQ(Client(kGetFile)->ReadReply().Body, "");
  EXPECT_TRUE(FServer->GoesOn());
  EXPECT_FALSE(FServer->Deactivate()) << "what stands still is left behind";
  FReleased.Signal();
  EXPECT_TRUE(Eventually([this] { return FWaiting == 0; }));
  for (auto* const client : {&one, &two, &three}) client->reset();
  FDescriptors = OpenDescriptors();
}

TEST_F(HttpServerTest, GoesOnUnlessItsThreadStandsStill) {
  Start();
  const auto client = Client("GET /wait" + kEnd);
  EXPECT_TRUE(Eventually([this] { return FWaiting == 1; }));
  EXPECT_TRUE(FServer->GoesOn()) << "asked for the first time";
  EXPECT_FALSE(FServer->GoesOn());
  FReleased.Signal();
  EXPECT_TRUE(Eventually([this] { return FServer->GoesOn(); }));
}

TEST_F(HttpServerTest, LeavesNothingBehindInAnyStateAndUnderLoad) {
  FFolder.Write("log.html", *Big());
  FOptions.StopGrace = milliseconds(500);  // Who is slower is left behind, with what it has open.
  for (int round = 0; round < 4; ++round) {
    StartOn(SystemClock());
    std::atomic<bool> enough = false;
    TCrew load(2, [&](int) {
      while (!enough) {
        (void)ThrownMessage([&] {  // When it has stopped.
          Client("GET /echo?" + std::string(9000, 'q') + kEnd + kGet)->ReadReply();
        });
      }
    });
    const auto idle = Client();
    const auto half = Client("GET / HT");
    const auto unread = Client(kGetBig);
    const auto reading = Client(kGetFile);
    const auto gone = Client(kGetFile);
    for (const auto& client : {&unread, &reading, &gone}) {
      EXPECT_EQ((*client)->ReadHead().Status(), 200);
    }
    gone->Reset();
    // What has just been accepted is marked a moment later.
    EXPECT_TRUE(Eventually([&] { return idle->Get("/inherited").Body == "0"; }));
    FServer->Deactivate();
    enough = true;
    EXPECT_EQ(idle->ReadToEnd() + half->ReadToEnd(), "");
    for (const auto& client : {&unread, &reading}) {  // The kernel drops what they have not taken.
      EXPECT_LT((*client)->ReadToEnd().size(), Big()->size());
      EXPECT_TRUE((*client)->WasReset());
    }
  }
}

TEST_F(HttpServerTest, FinishesTheAnswerThatIsUnderWayWhenStopped) {
  FOptions.StopGrace = FOptions.HeaderTimeout = seconds(600);
  StartOn(SystemClock());
  TRawClient idle(FServer->Port());
  EXPECT_EQ(idle.Get("/").Body, "hello");
  const auto client = Client(kGetBig + kNever);
  TRawReply big = client->ReadHead();
  TCrew stopper(1, [&](int) { FServer->Deactivate(); });
  EXPECT_EQ(idle.ReadToEnd(), "");
  EXPECT_THROW(Client(), std::runtime_error);
  client->ReadBody(big);
  EXPECT_EQ(big.Body, BigPage());
  EXPECT_EQ(client->ReadToEnd(), "");
  stopper.Join();
  FServer->Activate(0);  // Now it waits for nobody.
}

// The status and the body, of a long one its length; or what was thrown.
std::string Outcome(const std::string& address, int timeoutMs = kHangLimitMs) {
  try {
    const auto [status, body] = HttpGet(address, milliseconds(timeoutMs));
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
  const std::tuple<std::string, TThen, std::string, std::string> cases[] = {
      {Ok("Content-Length: 5\r\n\r\nhello"), TThen::Hold, "200 hello", ""},
      {Ok("\r\nhello"), TThen::Close, "200 hello", ""},
      {"HTTP/1.0 399 Odd\r\n\r\n", TThen::Close, "399 ", ""},
      {"HTTP/1.1 400 Bad\r\n\r\n", TThen::Close, "", "answered 400"},
      {Ok("Content-Length: 16777216\r\n\r\n" + largest), TThen::Close, "200 16777216", ""},
      {Ok("\r\n" + largest + "x"), TThen::Hold, "", "body limit exceeded"},
      {Ok("A: " + std::string(66'000, 'x')), TThen::Hold, "", "header limit exceeded"},
      {"", TThen::Close, "", "end of stream"},
      {Ok("\r\n"), TThen::Drip, "", "timed out after 50 ms"},
  };
  for (const auto& [reply, then, expected, failure] : cases) {
    SCOPED_TRACE(reply.substr(0, 80) + failure);
    const TFileDescriptor listener = ListenOnLoopback(0);
    const std::string host = "127.0.0.1:" + std::to_string(PortOf(listener));
    std::string request;
    TCrew server(1, [&, reply = reply, then = then](int) {
      TRawClient peer(TFileDescriptor(::accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC)));
      request = peer.ReadToEmptyLine();
      EXPECT_EQ(Inherited(descriptors), 0);
      peer.Send(reply);
      while (then == TThen::Drip && !peer.WaitGone(1)) peer.Send("x");
      if (then == TThen::Hold) peer.ReadToEnd();
    });
    const std::string outcome =
        Outcome(host + "/status.php", then == TThen::Drip ? 50 : kHangLimitMs);
    server.Join();
    EXPECT_THAT(outcome, AllOf(StartsWith(expected), HasSubstr(failure)));
    EXPECT_EQ(outcome.starts_with("HTTP GET " + host + "/status.php: "), expected.empty());
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

}  // namespace
}  // namespace guardian

// In the place of the library's.
extern "C" int malloc_trim(std::size_t /*kept*/) noexcept { return ++guardian::timesTrimmed; }

extern "C" int getpeername(int socket, sockaddr* peer, socklen_t* length) noexcept {
  static const auto next =
      reinterpret_cast<decltype(&getpeername)>(::dlsym(RTLD_NEXT, "getpeername"));
  const int result = next(socket, peer, length);
  const int stranger[] = {192, 0, 2, guardian::stranger};
  auto* const address = reinterpret_cast<sockaddr_in6*>(peer)->sin6_addr.s6_addr;
  if (stranger[3] != 0) std::copy(stranger, stranger + 4, address + 12);
  return result;
}

extern "C" int accept(int listener, sockaddr* peer, socklen_t* length) {
  if (guardian::acceptsThatFail > 0 && guardian::acceptsThatFail-- > 0) {
    errno = EMFILE;
    return -1;
  }
  static const auto next = reinterpret_cast<decltype(&accept)>(::dlsym(RTLD_NEXT, "accept"));
  return next(listener, peer, length);
}
