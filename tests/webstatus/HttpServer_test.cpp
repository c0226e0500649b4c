#include "webstatus/HttpServer.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <list>
#include <random>

#include "common/Event.h"
#include "common/Exceptions.h"
#include "support/Crew.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"
#include "support/OpenDescriptors.h"
#include "support/TempFolder.h"
#include "support/ThrownMessage.h"
#include "webstatus/HttpClient.h"
#include "webstatus/RawClient.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;

constexpr std::size_t kBigBytes = 12 * 1024 * 1024;  // More than all socket buffers hold.
const std::string kGetBig = "GET /big HTTP/1.1\r\n\r\n";

std::string Pattern(std::size_t bytes) {
  std::string text(bytes, '\0');
  for (std::size_t i = 0; i < bytes; ++i) text[i] = static_cast<char>(i * 7 + i / 251);
  return text;
}

std::ptrdiff_t CountThreads() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

class HttpServerTest : public testing::Test {
 protected:
  ~HttpServerTest() override {
    FServer.reset();
    EXPECT_EQ(FErrors, FExpectedErrors) << FLastError.Copy();
  }

  void Start(THttpServerOptions options = {}, TClock& clock = SystemClock()) {
    options.OnError = [this](const std::exception_ptr& error) {
      FLastError.Set(MessageOf(error));
      ++FErrors;
    };
    FServer = std::make_unique<THttpServer>(
        [this](const THttpRequest& request) { return Answer(request); }, options, clock);
    FServer->Activate(0);
  }

  // One pool thread works strictly in order, and looks at the fake clock every few milliseconds.
  void StartOnFakeClock(std::size_t threads = 1) {
    THttpServerOptions options;
    options.Threads = threads;
    options.SweepInterval = milliseconds(5);
    Start(options, FClock);
  }

  // A client whose small receive buffer is full long before a big answer ends.
  std::unique_ptr<TRawClient> Client(const std::string& bytes = "") {
    auto client = std::make_unique<TRawClient>(FServer->Port(), 4096);
    client->Send(bytes);
    return client;
  }

  // Returns when the one pool thread has done everything that was asked of it before.
  void Sync() { ASSERT_EQ(TRawClient(FServer->Port()).Get("/").Body, "hello"); }

  THttpResponse Answer(const THttpRequest& request) {
    THttpResponse response;
    response.Body = "hello";
    if (request.Path == "/throw") throw KZException("no page today");
    if (request.Path == "/wait") {
      FEntered.Signal();
      FReleased.WaitFor(milliseconds(kHangLimitMs));
    }
    if (request.Path == "/big") response.Body = Pattern(kBigBytes);
    if (request.Path == "/tail") {
      response.Body = "begin|";
      response.Tail = {FTail, std::make_shared<const std::string>("|end")};
    }
    if (request.Path == "/echo") {
      response.Body = request.Method + "|" + request.Query + "|" + request.SecFetchSite;
    }
    if (request.Path.starts_with("/path")) response.Body = request.Path;
    if (request.Path.starts_with("/status")) response.Status = std::stoi(request.Path.substr(7));
    if (request.Path == "/forge") {
      response.ContentType = "text/css\nX-Two: 2";
      response.ContentDisposition = "inline; filename=\"a\r\nX-One: 1\r\n\r\n\x7f\"";
    }
    if (request.Path == "/file") {
      const std::string path = FFolder.Path("log.html");
      response.File = TFileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
      response.FileSize = FFileSize;
    }
    return response;
  }

  void MakeFile(const std::string& content) {
    FFolder.Write("log.html", content);
    FFileSize = content.size();
  }

  TTempFolder FFolder;
  std::atomic<std::uint64_t> FFileSize = 0;
  const TSharedText::TText FTail = std::make_shared<const std::string>(Pattern(kBigBytes));
  TFakeClock FClock;
  TKZEvent FEntered{"Entered"};
  TKZEvent FReleased{"Released"};
  std::atomic<int> FErrors = 0;
  int FExpectedErrors = 0;
  TSharedText FLastError;
  std::unique_ptr<THttpServer> FServer;
};

TEST_F(HttpServerTest, AnswersEachRequestAndClosesAfterTheLast) {
  Start();
  const std::string end = " HTTP/1.1\r\n\r\n";
  const std::string next = "GET /never" + end;
  const std::string bad = "Bad Request\n";
  const std::string refused = "Method Not Allowed\n";
  const struct {
    std::string Request;
    int Status;
    std::string Body;
    bool Closes = true;
  } cases[] = {
      {"GET /path HTTP/1.1\r\nHost: x\r\n\r\n", 200, "/path", false},
      {"GET /path/%41%2e%2E/%zz%4" + end, 200, "/path/A../%zz%4", false},
      {"GET /path%3Fa?b" + end, 200, "/path?a", false},
      {"GET HTTP://host:80/path" + end, 200, "/path", false},
      {"GET http://host?/path" + end, 200, "hello", false},
      {"GET /echo?a=%20b?c" + end, 200, "GET|a=%20b?c|", false},
      {"GET /echo? HTTP/1.1\r\nsec-fetch-SITE:  cross-site \r\nX: y\r\n\r\n", 200,
       "GET||cross-site", false},
      {"GET / HTTP/1.0\r\nConnection: keep-alive\r\n\r\n", 200, "hello", false},
      {"GET / HTTP/1.0\r\n\r\n" + next, 200, "hello"},
      {"GET / HTTP/1.1\r\nConnection: close\r\n\r\n" + next, 200, "hello"},
      {"GET / HTTP/1.1\r\nContent-Length: 26\r\n\r\n" + next, 200, "hello"},
      {"GET / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 200, "hello"},
      {"POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc" + next, 405, refused},
      {"POST / HTTP/1.1\r\nContent-Length: 500000\r\n\r\n" + std::string(500'000, 'x'), 405,
       refused},
      {"get /" + end, 405, refused},
      {std::string("\x16\x03\x01\x02\x00\x01\x00", 7), 400, bad},
      {"GET / HTTP/2.0\r\n\r\n", 400, bad},
      {"GET / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n", 400, bad},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.Request.substr(0, 80));
    TRawClient client(FServer->Port());
    client.Send(item.Request);
    const TRawReply reply = client.ReadReply();
    EXPECT_EQ(reply.Status(), item.Status);
    EXPECT_EQ(reply.Body, item.Body);
    EXPECT_TRUE(reply.Has(item.Closes ? "Connection: close" : "Connection: keep-alive"));
    EXPECT_TRUE(
        reply.Has(item.Status == 200 ? "Content-Type: text/html" : "Content-Type: text/plain"));
    EXPECT_EQ(reply.Has("Allow: GET, HEAD"), item.Status == 405);
    EXPECT_EQ(item.Closes ? client.ReadToEnd() : client.Get("/").Body, item.Closes ? "" : "hello");
    EXPECT_FALSE(client.WasReset());
  }
  // A body without an end is not read for ever.
  TRawClient endless(FServer->Port());
  endless.Send("POST / HTTP/1.1\r\nContent-Length: 999999999\r\n\r\n" +
               std::string(kBigBytes, 'x'));
  EXPECT_TRUE(endless.WasReset());
}

TEST_F(HttpServerTest, LimitsTheWholeHeaderNotItsLines) {
  Start();
  constexpr std::size_t kLimit = 65'536;
  const std::string begin = "GET / HTTP/1.1\r\nA: ";
  std::string lines = begin;
  while (lines.size() < kLimit - 100) lines += "b\r\nC: ";
  for (const std::string& text : {begin, lines}) {
    const std::string atLimit = text + std::string(kLimit - text.size() - 4, 'x') + "\r\n\r\n";
    const std::string aboveLimit = text + "y" + atLimit.substr(text.size());
    TRawClient client(FServer->Port());
    client.Send("GET / HTTP/1.1\r\n\r\n" + atLimit + atLimit + aboveLimit);
    for (const int status : {200, 200, 200, 431}) EXPECT_EQ(client.ReadReply().Status(), status);
    EXPECT_EQ(client.ReadToEnd(), "");
    // A header without an end is refused at the limit too.
    TRawClient endless(FServer->Port());
    endless.Send(text + std::string(kLimit - text.size(), 'x'));
    EXPECT_EQ(endless.ReadReply().Status(), 431);
  }
}

TEST_F(HttpServerTest, AnswersPipelinedRequestsInOrder) {
  Start();
  MakeFile(Pattern(100'000));
  const std::string end = " HTTP/1.1\r\n\r\n";
  std::string requests;
  for (int i = 0; i < 50; ++i) {
    requests += "GET /echo?" + std::to_string(i) + end + "HEAD /echo" + end + "GET /file" + end;
  }
  TRawClient client(FServer->Port());
  client.Send(requests + "GET / HTTP/1.0\r\n\r\nGET /never" + end);
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(client.ReadReply().Body, "GET|" + std::to_string(i) + "|");
    ASSERT_TRUE(client.ReadHead().Has("Content-Length: 6"));
    ASSERT_EQ(client.ReadReply().Body, Pattern(100'000));
  }
  EXPECT_EQ(client.ReadReply().Body, "hello");
  EXPECT_EQ(client.ReadToEnd(), "");
}

TEST_F(HttpServerTest, SendsOneFixedSetOfHeaders) {
  Start();
  TRawClient client(FServer->Port());
  EXPECT_EQ(client.Get("/").Head,
            "HTTP/1.1 200 OK\r\n"
            "Content-Type: text/html\r\n"
            "Content-Disposition: inline\r\n"
            "Content-Length: 5\r\n"
            "Connection: keep-alive\r\n"
            "Cache-Control: no-store\r\n"
            "X-Content-Type-Options: nosniff\r\n"
            "Content-Security-Policy: default-src 'none'; style-src 'unsafe-inline'; "
            "frame-ancestors 'none'; base-uri 'none'; form-action 'none'\r\n"
            "\r\n");
  const TRawReply forged = client.Get("/forge");
  EXPECT_TRUE(forged.Has("Content-Type: text/css_X-Two: 2"));
  EXPECT_TRUE(forged.Has("Content-Disposition: inline; filename=\"a__X-One: 1_____\""));
  EXPECT_EQ(forged.Body, "hello");
}

TEST_F(HttpServerTest, AnswersAFailedHandlerAndGoesOn) {
  Start();
  TRawClient client(FServer->Port());
  for (const int status : {200, 404, 599, 204, 304}) {
    const TRawReply reply = client.Get("/status" + std::to_string(status));
    EXPECT_EQ(reply.Status(), status);
    EXPECT_EQ(reply.Body, status == 204 || status == 304 ? "" : "hello");
  }
  for (const char* const page : {"/status199", "/status600", "/throw"}) {
    EXPECT_EQ(client.Get(page).Body, "Internal Server Error\n");
    EXPECT_EQ(FErrors, ++FExpectedErrors);
  }
  EXPECT_EQ(FLastError.Copy(), "no page today");
  EXPECT_EQ(client.Get("/").Body, "hello");
}

TEST_F(HttpServerTest, SendsLongTextsAndFilesExactlyAndLetsThemGo) {
  Start();
  TRawClient client(FServer->Port());
  for (int i = 0; i < 2; ++i) EXPECT_EQ(client.Get("/tail").Body, "begin|" + *FTail + "|end");
  client.Send("HEAD /tail HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(client.ReadHead().Has("Content-Length: " + std::to_string(kBigBytes + 10)));

  const std::string content = Pattern(5'000'123);
  MakeFile(content);
  const std::set<int> descriptors = OpenDescriptors();
  EXPECT_EQ(client.Get("/file").Body, content);
  FFileSize = content.size() - 1;  // It has grown since.
  EXPECT_EQ(client.Get("/file").Body, content.substr(0, content.size() - 1));
  client.Send("HEAD /file HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(client.ReadHead().Has("Content-Length: 5000122"));
  FFileSize = 0;
  EXPECT_EQ(client.Get("/file").Body, "");
  EXPECT_EQ(client.Get("/").Body, "hello");
  EXPECT_EQ(FTail.use_count(), 1);
  EXPECT_EQ(OpenDescriptors(), descriptors);
  FFileSize = content.size() + 1;  // It has shrunk since.
  client.Send("GET /file HTTP/1.1\r\n\r\nGET /never HTTP/1.1\r\n\r\n");
  const TRawReply cut = client.ReadReply();
  EXPECT_TRUE(cut.Has("Content-Length: 5000124"));
  EXPECT_EQ(cut.Body, content);
  EXPECT_EQ(client.ReadToEnd(), "");
}

// The requests are judged by the sweep that closes the older neighbour at its limit.
TEST_F(HttpServerTest, GivesAHeaderTenSecondsWhateverDripsIn) {
  StartOnFakeClock();
  TRawClient silent(FServer->Port());
  Sync();
  FClock.Advance(milliseconds(1));
  TRawClient late(FServer->Port());
  TRawClient dripping(FServer->Port());
  Sync();
  for (const char* const bytes : {"GET ", "/ HT", "TP/1"}) {
    FClock.Advance(milliseconds(3'000));
    late.Send(bytes);
    dripping.Send(bytes);
    Sync();
  }
  EXPECT_FALSE(silent.WaitGone(0));
  FClock.Advance(milliseconds(999));
  EXPECT_EQ(silent.ReadToEnd(), "");
  late.Send(".1\r\n\r\n");
  EXPECT_EQ(late.ReadReply().Body, "hello");
  Sync();
  FClock.Advance(milliseconds(1));
  EXPECT_EQ(dripping.ReadToEnd(), "");
  FClock.Advance(milliseconds(9'998));
  EXPECT_EQ(late.Get("/").Body, "hello");  // The time begins again with each answer.
  Sync();
  FClock.Advance(milliseconds(10'000));
  EXPECT_EQ(late.ReadToEnd(), "");
  // One that comes just after the last has gone, when the sweep is about to end, is watched too.
  for (int round = 0; round < 30; ++round) {
    TRawClient next(FServer->Port());
    Sync();
    FClock.Advance(milliseconds(10'000));
    EXPECT_EQ(next.ReadToEnd(), "") << round;
  }
}

TEST_F(HttpServerTest, GivesAClientTwoSecondsToCloseAfterTheLastAnswer) {
  StartOnFakeClock();
  TRawClient silent(FServer->Port());
  Sync();
  FClock.Advance(milliseconds(8'001));
  TRawClient last(FServer->Port());
  last.Send("GET / HTTP/1.0\r\n\r\n");
  EXPECT_EQ(last.ReadReply().Body, "hello");
  EXPECT_EQ(last.ReadToEnd(), "");
  Sync();
  FClock.Advance(milliseconds(1'999));
  EXPECT_EQ(silent.ReadToEnd(), "");
  last.Send("x");
  Sync();
  EXPECT_FALSE(last.WasReset());
  FClock.Advance(milliseconds(1));
  EXPECT_TRUE(Eventually([&] { return last.Send("x"), last.WasReset(); }));
}

TEST_F(HttpServerTest, SetsNoLimitToTheHandler) {
  StartOnFakeClock(2);
  TRawClient client(FServer->Port());
  client.Send("GET /wait HTTP/1.1\r\n\r\n");
  ASSERT_TRUE(FEntered.WaitFor(milliseconds(kHangLimitMs)));
  TRawClient silent(FServer->Port());
  Sync();
  FClock.Advance(std::chrono::hours(1));
  EXPECT_EQ(silent.ReadToEnd(), "");
  FReleased.Signal();
  EXPECT_EQ(client.ReadReply().Body, "hello");
}

// Thirty seconds without progress are too long; fifty with some are not.
TEST_F(HttpServerTest, GivesUpAClientThatTakesNothing) {
  StartOnFakeClock();
  const auto slow = Client(kGetBig);
  const auto stuck = Client(kGetBig);
  TRawReply big = slow->ReadHead();
  EXPECT_EQ(stuck->ReadHead().Status(), 200);
  for (int round = 0; round < 3; ++round) {
    slow->ReadBody(big, kBigBytes / 4);
    Sync();
    Sync();  // Now the buffers are full again, and the time runs.
    EXPECT_EQ(stuck->WaitGone(round == 2 ? kHangLimitMs : 0), round == 2);
    FClock.Advance(seconds(round == 1 ? 10 : 20));
  }
  slow->ReadBody(big);
  EXPECT_EQ(big.Body, Pattern(kBigBytes));
  EXPECT_LT(stuck->ReadToEnd().size(), kBigBytes);
}

TEST_F(HttpServerTest, ServesExactly256ConnectionsBesideEachOther) {
  StartOnFakeClock(2);
  std::vector<std::unique_ptr<TRawClient>> crowd;
  for (std::size_t i = 0; i < 255; ++i) {
    crowd.push_back(Client(i % 60 == 2 ? kGetBig : i % 3 == 1 ? "GET / HTTP/1.1\r\nHo" : ""));
  }
  TRawClient client(FServer->Port());
  for (int i = 0; i < 20; ++i) {
    crowd[1]->Send("x");
    ASSERT_EQ(client.Get("/").Body, "hello");
  }
  EXPECT_FALSE(crowd[0]->WaitGone(0));
  TRawClient another(FServer->Port());
  EXPECT_EQ(another.Get("/").Body, "hello");
  EXPECT_EQ(crowd[0]->ReadToEnd(), "");
  crowd[1]->Send("st: x\r\n\r\n");
  EXPECT_EQ(crowd[1]->ReadReply().Body, "hello");
}

// The model: the idle connections, the one that has been idle longest first. A busy one stays.
TEST_F(HttpServerTest, SendsTheOldestIdleConnectionAwayAboveTheLimit) {
  constexpr std::size_t kIdleLimit = 4;
  THttpServerOptions options;
  options.Threads = 1;
  options.MaxConnections = kIdleLimit + 1;
  Start(options, FClock);
  const auto busy = Client(kGetBig);
  TRawReply big = busy->ReadHead();
  std::mt19937 random(20'261'121);  // NOLINT(cert-msc51-cpp): the same steps in each run
  struct TIdle {
    std::unique_ptr<TRawClient> Client;
    std::string Rest = "GET / HTTP/1.1\r\n\r\n";  // What is still missing of its request.
  };
  std::list<TIdle> idle;
  for (int step = 0; step < 300; ++step) {
    SCOPED_TRACE(step);
    const auto action = random() % 3;
    if (idle.empty() || action == 0) idle.push_back({Client()});
    auto chosen =
        idle.size() > kIdleLimit || action == 0
            ? std::prev(idle.end())
            : std::next(idle.begin(), static_cast<std::ptrdiff_t>(random() % idle.size()));
    if (action == 1 && chosen->Rest.size() > 1) {
      chosen->Client->Send(chosen->Rest.substr(0, 1));
      chosen->Rest.erase(0, 1);
      continue;
    }
    chosen->Client->Send(std::exchange(chosen->Rest, TIdle().Rest));
    ASSERT_EQ(chosen->Client->ReadReply().Body, "hello");
    idle.splice(idle.end(), idle, chosen);
    if (idle.size() <= kIdleLimit) continue;
    ASSERT_EQ(idle.front().Client->ReadToEnd(), "");
    idle.pop_front();
  }
  busy->ReadBody(big);
  EXPECT_EQ(big.Body, Pattern(kBigBytes));
}

TEST_F(HttpServerTest, ClosesANewConnectionWhenAllAreBusy) {
  THttpServerOptions options;
  options.MaxConnections = 2;
  Start(options);
  std::vector<std::unique_ptr<TRawClient>> busy;
  for (int i = 0; i < 2; ++i) {
    busy.push_back(Client(kGetBig));
    EXPECT_EQ(busy.back()->ReadHead().Status(), 200);
  }
  EXPECT_EQ(Client("GET / HTTP/1.1\r\n\r\n")->ReadToEnd(), "");
  busy.pop_back();
  EXPECT_TRUE(Eventually([&] { return TRawClient(FServer->Port()).Get("/").Body == "hello"; }));
}

TEST_F(HttpServerTest, WaitsForDescriptorsWithoutSpinning) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer needs descriptors of its own";
#endif
  Start();
  TRawClient first(FServer->Port());
  EXPECT_EQ(first.Get("/").Body, "hello");
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  for (FExpectedErrors = 1; FExpectedErrors <= 2; ++FExpectedErrors) {
    TFileDescriptor spare(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const rlimit lowered{static_cast<rlim_t>(spare.Get()) + 1, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &lowered);
    std::vector<TFileDescriptor> fillers;
    do {
      fillers.emplace_back(::fcntl(spare.Get(), F_DUPFD_CLOEXEC, 0));
    } while (fillers.back());
    spare.Close();  // The number that the client takes.
    TRawClient waiting(FServer->Port());
    EXPECT_TRUE(Eventually([&] { return FErrors == FExpectedErrors; }));
    EXPECT_THAT(FLastError.Copy(), HasSubstr("Too many open files"));
    EXPECT_EQ(first.Get("/").Body, "hello");
    ::setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(waiting.Get("/").Body, "hello");
  }
  --FExpectedErrors;
}

TEST_F(HttpServerTest, SharesItsPortWithNobodyAndReturnsToIt) {
  Start();
  const std::uint16_t port = FServer->Port();
  THttpServer second([](const THttpRequest&) { return THttpResponse(); });
  for (int round = 0; round < 3; ++round) {
    TRawClient client(port);  // The server closes first, so its end of the connection lingers.
    client.Send("GET / HTTP/1.0\r\n\r\n");
    EXPECT_EQ(client.ReadReply().Body, "hello");
    EXPECT_EQ(client.ReadToEnd(), "");
    EXPECT_THAT(ThrownMessage([&] { second.Activate(port); }), HasSubstr("in use"));
    EXPECT_FALSE(second.Active());
    EXPECT_THROW(FServer->Activate(0), KZException);
    EXPECT_EQ(FServer->Port(), port);
    FServer->Deactivate();
    FServer->Deactivate();
    EXPECT_FALSE(FServer->Active());
    EXPECT_THROW(TRawClient{port}, std::runtime_error);
    FServer->Activate(port);
  }
  if (std::filesystem::exists("/proc/net/if_inet6")) {
    EXPECT_EQ(HttpGet("[::1]:" + std::to_string(port) + "/", seconds(30)).Body, "hello");
  }
  FServer->Deactivate();
  const TFileDescriptor other = ListenOnLoopback(port);  // Of IPv4 alone, and in the way as well.
  ASSERT_TRUE(other);
  EXPECT_THROW(FServer->Activate(port), ESystemError);
}

TEST_F(HttpServerTest, LeavesNothingBehindInAnyState) {
  MakeFile(Pattern(kBigBytes));
  InThread([] {});  // With the first thread of a process a sanitizer starts one of its own.
  const std::set<int> descriptors = OpenDescriptors();
  const auto threads = CountThreads();
  for (int round = 0; round < 2; ++round) {
    THttpServerOptions options;
    options.StopGrace = milliseconds(50);
    Start(options);
    EXPECT_EQ(CountThreads(), threads + 2);
    const auto idle = Client();
    const auto half = Client("GET / HT");
    const auto unread = Client(kGetBig);
    const auto reading = Client("GET /file HTTP/1.1\r\n\r\n");
    const auto gone = Client("GET /file HTTP/1.1\r\n\r\n");
    for (const auto& client : {&unread, &reading, &gone}) {
      EXPECT_EQ((*client)->ReadHead().Status(), 200);
    }
    gone->Reset();
    EXPECT_EQ(idle->Get("/").Body, "hello");
    for (const int descriptor : OpenDescriptors()) {
      if (descriptors.contains(descriptor)) continue;
      EXPECT_NE(::fcntl(descriptor, F_GETFD), 0) << descriptor;
    }
    FServer->Deactivate();
    EXPECT_EQ(idle->ReadToEnd(), "");
    EXPECT_EQ(half->ReadToEnd(), "");
    for (const auto& client : {&unread, &reading}) {  // The kernel drops what they have not taken.
      EXPECT_LT((*client)->ReadToEnd().size(), kBigBytes);
      EXPECT_TRUE((*client)->WasReset());
    }
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
  // The entry of a joined thread vanishes a little later.
  EXPECT_TRUE(Eventually([&] { return CountThreads() == threads; }));
}

TEST_F(HttpServerTest, FinishesTheAnswerThatIsUnderWayWhenStopped) {
  THttpServerOptions options;
  options.StopGrace = seconds(600);
  options.HeaderTimeout = seconds(600);
  Start(options);
  const std::uint16_t port = FServer->Port();
  const auto client = Client(kGetBig + "GET /never HTTP/1.1\r\n\r\n");
  TRawReply big = client->ReadHead();
  TRawClient idle(port);
  EXPECT_EQ(idle.Get("/").Body, "hello");
  TCrew stopper(1, [&](int) { FServer->Deactivate(); });
  EXPECT_EQ(idle.ReadToEnd(), "");
  EXPECT_THROW(TRawClient{port}, std::runtime_error);
  client->ReadBody(big);
  EXPECT_EQ(big.Body, Pattern(kBigBytes));
  EXPECT_EQ(client->ReadToEnd(), "");
}

TEST_F(HttpServerTest, SurvivesRestartsUnderLoad) {
  Start();
  std::atomic<int> answers = 0;
  std::atomic<bool> enough = false;
  TCrew clients(3, [&](int i) {
    const std::string query(static_cast<std::size_t>(i) * 5000, 'q');
    while (!enough) {
      try {
        TRawClient client(FServer->Port());
        client.Send("GET /echo?" + query + " HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
        if (i > 0 && client.ReadReply().Status() == 200) ++answers;
        if (i > 1) client.Reset();
      } catch (const std::exception&) {
        continue;  // Between two lives of the server.
      }
    }
  });
  for (int round = 1; round <= 4; ++round) {
    const int before = answers;
    EXPECT_TRUE(Eventually([&] { return answers >= before + 10; }));
    FServer->Deactivate();
    FServer->Activate(0);
  }
  enough = true;
}

}  // namespace
}  // namespace guardian
