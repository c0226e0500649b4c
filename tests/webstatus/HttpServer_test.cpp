#include "webstatus/HttpServer.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "common/Event.h"
#include "common/Exceptions.h"
#include "common/SharedText.h"
#include "common/Thread.h"
#include "support/Eventually.h"
#include "support/FakeClock.h"
#include "support/TempFolder.h"
#include "webstatus/HttpClient.h"
#include "webstatus/RawClient.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;

constexpr std::size_t kBigBytes = 12 * 1024 * 1024;  // More than any socket buffers.

std::string Pattern(std::size_t bytes) {
  std::string text(bytes, '\0');
  for (std::size_t i = 0; i < bytes; ++i) text[i] = static_cast<char>(i * 7 + i / 251);
  return text;
}

class HttpServerTest : public testing::Test {
 protected:
  void Start(THttpServerOptions options = {}, TClock& clock = SystemClock()) {
    options.OnError = [this](std::exception_ptr error) {
      try {
        std::rethrow_exception(error);
      } catch (...) {
        FLastError.Set(CurrentExceptionMessage());
      }
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

  // Returns when the one pool thread is done with everything that was asked of it before.
  void Sync() {
    TRawClient client(FServer->Port());
    ASSERT_EQ(client.Get("/").Body, "hello");
  }

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
    if (request.Path == "/forge") {
      response.Status = 404;
      response.ContentType = "text/css\nX-Two: 2";
      response.ContentDisposition = "inline; filename=\"a\r\nX-One: 1\r\n\r\nb\"";
    }
    if (request.Path == "/file") {
      response.File = TFileDescriptor(::open(FFile.c_str(), O_RDONLY | O_CLOEXEC));
      response.FileSize = FFileSize;
    }
    return response;
  }

  void MakeFile(const std::string& content) {
    FFolder.Write("log.html", content);
    FFile = FFolder.Path("log.html");
    FFileSize = content.size();
  }

  TTempFolder FFolder;
  std::string FFile;
  std::uint64_t FFileSize = 0;
  const TSharedText::TText FTail = std::make_shared<const std::string>(Pattern(kBigBytes));
  TFakeClock FClock;
  TKZEvent FEntered{"Entered"};
  TKZEvent FReleased{"Released"};
  std::atomic<int> FErrors = 0;
  TSharedText FLastError;
  std::unique_ptr<THttpServer> FServer;
};

TEST_F(HttpServerTest, HandsRequestsOverDecoded) {
  Start();
  const std::string token(40'000, 't');
  const struct {
    std::string Request, Body;
  } cases[] = {
      {"GET /path HTTP/1.1\r\nHost: x\r\n\r\n", "/path"},
      {"GET /path/%41%2e%2E/%zz%4 HTTP/1.1\r\n\r\n", "/path/A../%zz%4"},
      {"GET /path%3Fa?b HTTP/1.1\r\n\r\n", "/path?a"},
      {"GET HTTP://host:80/path HTTP/1.1\r\n\r\n", "/path"},
      {"GET /echo?a=%20b?c HTTP/1.1\r\n\r\n", "GET|a=%20b?c|"},
      {"GET /echo? HTTP/1.1\r\nsec-fetch-SITE:  cross-site \r\nX: y\r\n\r\n", "GET||cross-site"},
      {"GET /echo?" + token + " HTTP/1.1\r\n\r\n", "GET|" + token + "|"},
  };
  TRawClient client(FServer->Port());
  for (const auto& item : cases) {
    SCOPED_TRACE(item.Request.substr(0, 80));
    client.Send(item.Request);
    const TRawReply reply = client.ReadReply();
    EXPECT_EQ(reply.Status(), 200);
    EXPECT_EQ(reply.Body, item.Body);
  }
}

TEST_F(HttpServerTest, ReadsARequestCutAnywhere) {
  Start();
  const std::string request = "GET /echo?q HTTP/1.1\r\nHost: x\r\nSec-Fetch-Site: none\r\n\r\n";
  TRawClient client(FServer->Port());
  for (std::size_t cut = 1; cut < request.size(); ++cut) {
    client.Send(request.substr(0, cut));
    Sync();  // Gives the first piece the time to be read alone.
    client.Send(request.substr(cut));
    ASSERT_EQ(client.ReadReply().Body, "GET|q|none") << cut;
  }
}

TEST_F(HttpServerTest, RefusesWhatItDoesNotServeAndCloses) {
  Start();
  const std::string tls("\x16\x03\x01\x02\x00\x01\x00", 7);
  const struct {
    std::string Request;
    int Status;
  } cases[] = {
      {tls, 400},
      {"\r\n\r\n", 400},
      {"GET / HTTP/2.0\r\n\r\n", 400},
      {"GET  HTTP/1.1\r\n\r\n", 400},
      {"GET / HTTP/1.1\r\nNo colon\r\n\r\n", 400},
      {"GET / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\n", 400},
      {"GET / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", 400},
      {"GET / HTTP/1.1\nHost: x\n\n", 400},
      {"POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\nabcGET / HTTP/1.1\r\n\r\n", 405},
      {"POST / HTTP/1.1\r\nContent-Length: 500000\r\n\r\n" + std::string(500'000, 'x'), 405},
      {"get / HTTP/1.1\r\n\r\n", 405},
      {"GET / HTTP/1.1\r\nContent-Length: 18\r\n\r\nGET / HTTP/1.1\r\n\r\n", 200},
      {"GET / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 200},
      {"GET / HTTP/1.0\r\n\r\n", 200},
  };
  for (const auto& item : cases) {
    SCOPED_TRACE(item.Request.substr(0, 80));
    TRawClient client(FServer->Port());
    client.Send(item.Request);
    const TRawReply reply = client.ReadReply();
    EXPECT_EQ(reply.Status(), item.Status);
    EXPECT_TRUE(reply.Has("Connection: close"));
    EXPECT_TRUE(
        reply.Has("Content-Security-Policy: default-src 'none'; style-src 'unsafe-inline'; "
                  "frame-ancestors 'none'; base-uri 'none'; form-action 'none'"));
    EXPECT_EQ(reply.Has("Allow: GET, HEAD"), item.Status == 405);
    EXPECT_EQ(client.ReadToEnd(), "");
    EXPECT_FALSE(client.WasReset());
  }
}

TEST_F(HttpServerTest, LimitsTheWholeHeaderNotItsLines) {
  Start();
  const auto limit = THttpServerOptions().MaxHeaderBytes;
  const std::string begin = "GET / HTTP/1.1\r\nA: ";
  std::string lines = begin;
  while (lines.size() < limit - 100) lines += "b\r\nC: ";
  for (const std::string& text : {begin, lines}) {
    const std::string atLimit = text + std::string(limit - text.size() - 4, 'x') + "\r\n\r\n";
    ASSERT_EQ(atLimit.size(), limit);
    const std::string aboveLimit = text + "y" + atLimit.substr(text.size());
    TRawClient client(FServer->Port());
    client.Send("GET / HTTP/1.1\r\n\r\n" + atLimit + atLimit + aboveLimit);
    for (const int status : {200, 200, 200, 431}) EXPECT_EQ(client.ReadReply().Status(), status);
    EXPECT_EQ(client.ReadToEnd(), "");
    // One that never ends is refused at the limit too.
    TRawClient endless(FServer->Port());
    endless.Send(text + std::string(limit - text.size(), 'x'));
    EXPECT_EQ(endless.ReadReply().Status(), 431);
  }
}

TEST_F(HttpServerTest, AnswersPipelinedRequestsInOrder) {
  Start();
  MakeFile(Pattern(100'000));
  std::string requests;
  for (int i = 0; i < 100; ++i) {
    const std::string end = " HTTP/1.1\r\n\r\n";
    requests += "GET /echo?" + std::to_string(i) + end + "HEAD /echo" + end + "GET /file" + end;
  }
  TRawClient client(FServer->Port());
  client.Send(requests + "GET / HTTP/1.0\r\n\r\nGET /never HTTP/1.1\r\n\r\n");
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(client.ReadReply().Body, "GET|" + std::to_string(i) + "|");
    ASSERT_TRUE(client.ReadHead().Has("Content-Length: 6"));
    ASSERT_EQ(client.ReadReply().Body.size(), 100'000);
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
  EXPECT_EQ(forged.Status(), 404);
  EXPECT_TRUE(forged.Has("Content-Type: text/css_X-Two: 2"));
  EXPECT_TRUE(forged.Has("Content-Disposition: inline; filename=\"a__X-One: 1____b\""));
  EXPECT_EQ(forged.Body, "hello");
}

TEST_F(HttpServerTest, AnswersAFailedHandlerAndGoesOn) {
  Start();
  TRawClient client(FServer->Port());
  for (int i = 1; i <= 5; ++i) {
    const TRawReply reply = client.Get("/throw");
    EXPECT_EQ(reply.Status(), 500);
    EXPECT_EQ(reply.Body, "Internal Server Error\n");
    EXPECT_EQ(FErrors, i);
  }
  EXPECT_EQ(FLastError.Copy(), "no page today");
  EXPECT_EQ(client.Get("/").Body, "hello");
}

TEST_F(HttpServerTest, SendsTheTailBehindTheBodyAndLetsItGo) {
  Start();
  TRawClient client(FServer->Port());
  for (int i = 0; i < 2; ++i) {
    const TRawReply reply = client.Get("/tail");
    EXPECT_TRUE(reply.Has("Content-Length: " + std::to_string(kBigBytes + 10)));
    EXPECT_EQ(reply.Body, "begin|" + *FTail + "|end");
  }
  client.Send("HEAD /tail HTTP/1.1\r\n\r\nGET / HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(client.ReadHead().Has("Content-Length: " + std::to_string(kBigBytes + 10)));
  EXPECT_EQ(client.ReadReply().Body, "hello");
  EXPECT_TRUE(Eventually([&] { return FTail.use_count() == 1; }));
}

TEST_F(HttpServerTest, StreamsExactlyThePromisedBytesOfAFile) {
  Start();
  const std::string content = Pattern(5'000'123);
  MakeFile(content);
  TRawClient client(FServer->Port());
  EXPECT_EQ(client.Get("/file").Body, content);
  FFileSize = content.size() - 1;  // It has grown since.
  EXPECT_EQ(client.Get("/file").Body, content.substr(0, content.size() - 1));
  client.Send("HEAD /file HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(client.ReadHead().Has("Content-Length: 5000122"));
  FFileSize = 0;
  EXPECT_EQ(client.Get("/file").Body, "");
  FFileSize = content.size() + 1;  // It has shrunk since.
  client.Send("GET /file HTTP/1.1\r\n\r\nGET /never HTTP/1.1\r\n\r\n");
  const TRawReply cut = client.ReadReply();
  EXPECT_TRUE(cut.Has("Content-Length: 5000124"));
  EXPECT_EQ(cut.Body, content);
  EXPECT_EQ(client.ReadToEnd(), "");
}

// The requests are judged by the sweep that closes the older neighbour at its limit.
TEST_F(HttpServerTest, GivesAHeaderItsTimeWhateverDripsIn) {
  StartOnFakeClock();
  const milliseconds limit = THttpServerOptions().HeaderTimeout;
  TRawClient silent(FServer->Port());
  Sync();
  FClock.Advance(milliseconds(1));
  TRawClient late(FServer->Port());
  TRawClient dripping(FServer->Port());
  Sync();
  for (const char* const bytes : {"GET ", "/ HT", "TP/1"}) {
    FClock.Advance(limit / 4);
    late.Send(bytes);
    dripping.Send(bytes);
    Sync();
  }
  FClock.Advance(limit - milliseconds(1) - limit / 4 * 3);
  EXPECT_EQ(silent.ReadToEnd(), "");
  late.Send(".1\r\n\r\n");
  EXPECT_EQ(late.ReadReply().Body, "hello");
  Sync();
  FClock.Advance(milliseconds(1));
  EXPECT_EQ(dripping.ReadToEnd(), "");
  FClock.Advance(limit - milliseconds(1));
  EXPECT_EQ(late.ReadToEnd(), "");
}

// Whoever comes just as the last one went, and the sweep is about to end, is watched all the same.
TEST_F(HttpServerTest, WatchesDeadlinesAgainAfterItWasEmpty) {
  StartOnFakeClock(2);
  for (int round = 0; round < 50; ++round) {
    TRawClient silent(FServer->Port());
    Sync();
    FClock.Advance(THttpServerOptions().HeaderTimeout);
    EXPECT_EQ(silent.ReadToEnd(), "") << round;
  }
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

TEST_F(HttpServerTest, GivesUpAClientThatTakesNothing) {
  StartOnFakeClock();
  TRawClient client(FServer->Port(), 4096);
  client.Send("GET /big HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.ReadHead().Status(), 200);
  TRawClient silent(FServer->Port());
  Sync();
  FClock.Advance(THttpServerOptions().HeaderTimeout);
  EXPECT_EQ(silent.ReadToEnd(), "");
  EXPECT_FALSE(client.WaitGone(0));
  // The server notes the moment at which the buffers are full; that is not visible from here.
  EXPECT_TRUE(Eventually([&] {
    FClock.Advance(THttpServerOptions().WriteTimeout);
    return client.WaitGone(10);
  }));
}

TEST_F(HttpServerTest, AnswersBesideCrowdsOfStalledClients) {
  Start();
  std::vector<std::unique_ptr<TRawClient>> crowd;
  for (std::size_t i = 0; i < 240; ++i) {
    crowd.push_back(std::make_unique<TRawClient>(FServer->Port(), 4096));
    if (i % 3 == 1) crowd.back()->Send("GET / HTTP/1.1\r\nHo");
    if (i % 60 == 2) crowd.back()->Send("GET /big HTTP/1.1\r\n\r\n");
  }
  TRawClient client(FServer->Port());
  for (int i = 0; i < 100; ++i) {
    crowd[1]->Send("x");
    ASSERT_EQ(client.Get("/").Body, "hello");
  }
  crowd[4]->Send("st: x\r\n\r\n");
  EXPECT_EQ(crowd[4]->ReadReply().Body, "hello");
}

TEST_F(HttpServerTest, SendsTheOldestIdleConnectionAwayAboveTheLimit) {
  THttpServerOptions options;
  options.Threads = 1;
  options.MaxConnections = 4;
  Start(options);
  TRawClient busy(FServer->Port(), 4096);
  busy.Send("GET /big HTTP/1.1\r\n\r\n");
  TRawReply big = busy.ReadHead();
  TRawClient first(FServer->Port());
  TRawClient second(FServer->Port());
  TRawClient third(FServer->Port());
  second.Send("GET / ");
  EXPECT_EQ(third.Get("/").Body, "hello");
  EXPECT_EQ(first.Get("/").Body, "hello");  // It has been idle for the shortest time now.
  TRawClient fourth(FServer->Port());
  EXPECT_EQ(fourth.Get("/").Body, "hello");
  EXPECT_EQ(second.ReadToEnd(), "");
  TRawClient fifth(FServer->Port());
  EXPECT_EQ(fifth.Get("/").Body, "hello");
  EXPECT_EQ(third.ReadToEnd(), "");
  EXPECT_EQ(first.Get("/").Body, "hello");
  busy.ReadBody(big);
  EXPECT_EQ(big.Body, Pattern(kBigBytes));
}

TEST_F(HttpServerTest, ClosesANewConnectionWhenAllAreBusy) {
  THttpServerOptions options;
  options.MaxConnections = 2;
  Start(options);
  std::vector<std::unique_ptr<TRawClient>> busy;
  for (int i = 0; i < 2; ++i) {
    busy.push_back(std::make_unique<TRawClient>(FServer->Port(), 4096));
    busy.back()->Send("GET /big HTTP/1.1\r\n\r\n");
    EXPECT_EQ(busy.back()->ReadHead().Status(), 200);
  }
  TRawClient refused(FServer->Port());
  refused.Send("GET / HTTP/1.1\r\n\r\n");
  EXPECT_EQ(refused.ReadToEnd(), "");
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
  TFileDescriptor spare(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const rlimit lowered{static_cast<rlim_t>(spare.Get()) + 1, limit.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &lowered);
  std::vector<TFileDescriptor> fillers;
  do {
    fillers.emplace_back(::fcntl(spare.Get(), F_DUPFD_CLOEXEC, 0));
  } while (fillers.back());
  spare.Close();  // The number that the client takes.
  TRawClient waiting(FServer->Port());
  EXPECT_TRUE(Eventually([&] { return FErrors == 1; }));
  EXPECT_THAT(FLastError.Copy(), HasSubstr("Too many open files"));
  EXPECT_EQ(first.Get("/").Body, "hello");
  ::setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(waiting.Get("/").Body, "hello");
  EXPECT_EQ(FErrors, 1);
}

TEST_F(HttpServerTest, ListensOnBothAddressFamilies) {
  Start();
  const std::string port = std::to_string(FServer->Port());
  EXPECT_EQ(HttpGet("127.0.0.1:" + port, seconds(30)).Body, "hello");
  if (!std::filesystem::exists("/proc/net/if_inet6")) GTEST_SKIP() << "no IPv6 here";
  EXPECT_EQ(HttpGet("[::1]:" + port, seconds(30)).Body, "hello");
}

TEST_F(HttpServerTest, SharesItsPortWithNobodyAndReturnsToIt) {
  Start();
  const std::uint16_t port = FServer->Port();
  THttpServer second([](const THttpRequest&) { return THttpResponse(); });
  for (int round = 0; round < 3; ++round) {
    // The server's end is the one that fades out.
    TRawClient client(port);
    client.Send("GET / HTTP/1.0\r\n\r\n");
    EXPECT_EQ(client.ReadReply().Body, "hello");
    EXPECT_EQ(client.ReadToEnd(), "");
    try {
      second.Activate(port);
      FAIL() << "two servers on one port";
    } catch (const ESystemError& error) {
      EXPECT_THAT(error.Message(), HasSubstr("in use"));
    }
    EXPECT_FALSE(second.Active());
    EXPECT_THROW(FServer->Activate(0), KZException);
    EXPECT_EQ(FServer->Port(), port);
    FServer->Deactivate();
    FServer->Deactivate();
    EXPECT_FALSE(FServer->Active());
    EXPECT_THROW(TRawClient{port}, std::runtime_error);
    FServer->Activate(port);
  }
  // A listener of IPv4 alone is in the way as well.
  FServer->Deactivate();
  const TFileDescriptor other(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  ::setsockopt(other.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  const sockaddr_in address = LoopbackAddress(port);
  ASSERT_EQ(::bind(other.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(::listen(other.Get(), 1), 0);
  EXPECT_THROW(FServer->Activate(port), ESystemError);
  second.Activate(0);
  EXPECT_TRUE(second.Active());
}

TEST_F(HttpServerTest, LeavesNothingBehindInAnyState) {
  MakeFile(Pattern(kBigBytes));
  const std::set<int> descriptors = OpenDescriptors();
  {
    // With the first thread of a process a sanitizer starts one of its own.
    TFunctionThread first("first", [] {});
    first.Start();
  }
  const auto threads = CountThreads();
  for (int round = 0; round < 2; ++round) {
    THttpServerOptions options;
    options.StopGrace = milliseconds(50);
    Start(options);
    TRawClient idle(FServer->Port());
    TRawClient half(FServer->Port());
    TRawClient unread(FServer->Port(), 4096);
    TRawClient reading(FServer->Port(), 4096);
    TRawClient gone(FServer->Port(), 4096);
    half.Send("GET / HT");
    for (TRawClient* client : {&unread, &reading, &gone}) {
      client->Send(std::string("GET ") + (client == &unread ? "/big" : "/file") +
                   " HTTP/1.1\r\n\r\n");
      EXPECT_EQ(client->ReadHead().Status(), 200);
    }
    gone.Reset();
    EXPECT_EQ(idle.Get("/").Body, "hello");
    for (const int descriptor : OpenDescriptors()) {
      const int flags = ::fcntl(descriptor, F_GETFD);
      if (flags < 0 || descriptors.contains(descriptor)) continue;
      EXPECT_TRUE(flags & FD_CLOEXEC) << descriptor;
    }
    FServer->Deactivate();
    EXPECT_EQ(idle.ReadToEnd(), "");
    EXPECT_EQ(half.ReadToEnd(), "");
    // Not even the kernel keeps what they have not taken.
    for (TRawClient* client : {&unread, &reading}) {
      EXPECT_LT(client->ReadToEnd().size(), kBigBytes);
      EXPECT_TRUE(client->WasReset());
    }
  }
  EXPECT_EQ(OpenDescriptors(), descriptors);
  // A joined thread's entry fades out a little later.
  EXPECT_TRUE(Eventually([&] { return CountThreads() == threads; }));
}

TEST_F(HttpServerTest, FinishesTheAnswerThatIsUnderWayWhenStopped) {
  THttpServerOptions options;
  options.StopGrace = seconds(600);
  options.HeaderTimeout = seconds(600);
  Start(options);
  const std::uint16_t port = FServer->Port();
  TRawClient client(port, 4096);
  client.Send("GET /big HTTP/1.1\r\n\r\nGET /never HTTP/1.1\r\n\r\n");
  TRawReply big = client.ReadHead();
  TRawClient idle(port);
  EXPECT_EQ(idle.Get("/").Body, "hello");
  std::thread stopper([&] { FServer->Deactivate(); });
  EXPECT_EQ(idle.ReadToEnd(), "");
  EXPECT_THROW(TRawClient{port}, std::runtime_error);
  client.ReadBody(big);
  EXPECT_EQ(big.Body, Pattern(kBigBytes));
  EXPECT_EQ(client.ReadToEnd(), "");
  stopper.join();
}

TEST_F(HttpServerTest, SurvivesRestartsUnderLoad) {
  Start();
  std::atomic<int> answers = 0;
  std::atomic<bool> enough = false;
  std::vector<std::thread> clients;
  for (int i = 0; i < 4; ++i) {
    clients.emplace_back([&, i] {
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
  }
  for (int round = 1; round <= 10; ++round) {
    const int before = answers;
    EXPECT_TRUE(Eventually([&] { return answers >= before + 20; }));
    FServer->Deactivate();
    FServer->Activate(0);
  }
  enough = true;
  for (std::thread& client : clients) client.join();
}

}  // namespace
}  // namespace guardian
