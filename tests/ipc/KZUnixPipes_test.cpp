#include "ipc/KZUnixPipes.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <random>

#include "common/AtEnd.h"
#include "common/NamedMutex.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exceptions/PipeCounters.h"
#include "ipc/MessageUnit.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using TWait = TPipeClient::TWait;

std::string Frame(std::string_view payload) {
  std::string frame;
  AppendFrame(frame, payload);
  return frame;
}

// Whether the thread report shows the mark.
bool Shows(const char* mark) {
  return KZCP::ThreadReport(KZCP::TReportHeader::Without).find(mark) != std::string::npos;
}

// So many starts of threads until one fails; 0 for none.
std::atomic<int> threadsUntilFailure = 0;

class KZUnixPipesTest : public TUnitsTest {
 protected:
  KZUnixPipesTest() {
    FServer->OnPipeDisconnect = [this](auto&, std::int64_t) { ++FDisconnects; };
    FServer->OnPipeMessage = [this](auto&, std::int64_t, std::string_view payload) {
      FServerReceived.emplace_back(payload);
    };
    FClient->OnPipeDisconnect = [this](auto&, std::int64_t pipe) {
      FClientDisconnects.push_back(pipe);
    };
  }

  // Freeing ends everything, in whatever state the test has left it.
  ~KZUnixPipesTest() override {
    FClient.reset();
    FServer.reset();
    const TPipeCounters& left = PipeCounters();
    EXPECT_EQ(left.ClientPipes + left.ClientPipeThreads, 0);
    EXPECT_EQ(left.ServerPipes + left.ServerPipeThreads, 0);
  }

  // A socket of which the test does everything itself: one that listens with a queue of two, or a
  // connected one.
  TFileDescriptor RawSocket(decltype(::connect)* bindOrConnect) const {
    TFileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    FSocketPath.copy(address.sun_path, sizeof(address.sun_path));
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    EXPECT_EQ(bindOrConnect(socket.Get(), generic, sizeof(address)), 0);
    EXPECT_TRUE(bindOrConnect == ::connect || ::listen(socket.Get(), 1) == 0);
    return socket;
  }

  void ServeAndConnect() {
    FServer->SetActive(true);
    ASSERT_TRUE(Eventually([&] { return FClient->Connect(0) && FServer->ClientCount() == 1; }));
  }
  // A second connection, of which the test plays the client.
  TFileDescriptor ServeAndConnectRaw() {
    ServeAndConnect();
    TFileDescriptor peer = RawSocket(::connect);
    EXPECT_TRUE(Eventually([&] { return FServer->ClientCount() == 2; }));
    return peer;
  }

  const std::string FSocketPath = FFolder.Path("PipeServer");
  std::unique_ptr<TPipeServer> FServer = std::make_unique<TPipeServer>();
  std::unique_ptr<TPipeClient> FClient = std::make_unique<TPipeClient>();
  int FDisconnects = 0;
  std::vector<std::string> FServerReceived;
  std::vector<std::int64_t> FClientDisconnects;
};

TEST_F(KZUnixPipesTest, ChecksNamesAndPaths) {
  EXPECT_NO_THROW(FClient->SetPipeName(std::string(63, 'n')));
  FClient->SetPipeName("PipeServer");
  for (const std::string& name : {std::string(64, 'n'), std::string(), std::string("a\\b")}) {
    EXPECT_EQ(ThrownMessage([&] { FClient->SetPipeName(name); }), "Invalid pipe name specified!");
  }
  // The longest path works, one byte more is refused.
  const std::string directory = FFolder.Path(std::string(106 - 11 - FFolder.Path().size(), 'd'));
  std::filesystem::create_directory(directory);
  SetPipeDirectory(directory);
  ServeAndConnect();
  EXPECT_EQ(ThrownMessage([] { (void)FullPipeNameOf("PipeServer1"); }),
            "Length(FullPipeName)+1>sizeof(FSockAddr.sun_path)");
  EXPECT_EQ(ThrownMessage([&] { FClient->SetPipeName("other"); }),
            "Cannot change property when client is connected!");
  EXPECT_EQ(ThrownMessage([&] { FServer->SetPipeName("other"); }),
            "Cannot change property while server is active!");
}

TEST_F(KZUnixPipesTest, CarriesFramesBothWays) {
  EXPECT_EQ(FClient->Pipe(), 4'294'967'295);
  EXPECT_FALSE(FClient->Write("nobody there"));
  std::vector<std::uint32_t> sizes;
  FClient->OnPipeSent = [&](auto&, auto, std::uint32_t size) { sizes.push_back(size); };
  FClient->SetMaxFrameSize(6);
  ServeAndConnect();
  EXPECT_TRUE(FClient->Connect(0)) << "it is connected already";
  const std::string large(3'000'000, 'x');
  for (const std::string& each : {std::string("one"), std::string(), large}) FClient->Write(each);
  ASSERT_TRUE(Eventually([&] { return FServerReceived.size() + sizes.size() == 5; }));
  EXPECT_TRUE(FServerReceived == (std::vector<std::string>{"one", large})) << "nothing empty";
  EXPECT_THAT(sizes, ElementsAre(0, 0, 0)) << "never the true ones";
  EXPECT_FALSE(FServer->Write(12'345, "nobody"));
  EXPECT_EQ(FServer->Clients(1), 0);
  std::string received;
  FClient->OnPipeMessage = [&](auto&, std::int64_t, std::string_view each) { received += each; };
  for (const char* each : {"answer", "answers"}) FServer->Write(FServer->Clients(0), each);
  EXPECT_TRUE(Eventually([&] {
    FServer->Write(FServer->Clients(0), "good");
    return received.size() > 6;
  }));
  EXPECT_EQ(received.substr(0, 10), "answergood") << "not what is above the limit";
}

TEST_F(KZUnixPipesTest, TriesAgainEveryHalfSecondAsOftenAsTheTimeAllows) {
  EXPECT_FALSE(FClient->Connect(1'000'000)) << "at once, without a socket file";
  // The server comes in the pause between the first two tries, in which the main thread works.
  bool freed = false;
  const auto connectWhileItComes = [&](int waitMs) {
    std::filesystem::remove(FSocketPath);
    RawSocket(::bind).Close();  // The file stays.
    TFileDescriptor server;
    const TCrew crew = AskMainThread([&] {
      std::filesystem::remove(FSocketPath);
      server = RawSocket(::bind);
      if (freed) FClient.reset();
    });
    return FClient.get()->Connect(waitMs);
  };
  EXPECT_FALSE(connectWhileItComes(499));
  EXPECT_TRUE(connectWhileItComes(500));
  FClient->Disconnect(TWait::Yes);
  freed = true;
  EXPECT_FALSE(connectWhileItComes(500));
}

TEST_F(KZUnixPipesTest, DoesNotHangOnAServerThatDoesNotAccept) {
  TFileDescriptor server = RawSocket(::bind);
  TCancellation stopping;
  std::vector<std::unique_ptr<TPipeClient>> clients;
  for (int i = 0; i < 8; ++i) clients.push_back(std::make_unique<TPipeClient>(&stopping));
  const auto connected = std::count_if(clients.begin(), clients.end(),
                                       [](const auto& client) { return client->Connect(0); });
  EXPECT_EQ(connected, 2);
  const TCrew crew = AskMainThread([&] { stopping.Cancel(); });
  EXPECT_FALSE(clients.back()->Connect(3'600'000));
  for (int i = 0; i < 2; ++i) clients[0]->Write(std::string(1'000'000, 'x'));
  const TCrew end = AskMainThread([&] { server.Close(); });
  clients[0]->WaitUntilWriteQueueEmpty(3600);
  EXPECT_FALSE(clients[0]->Connected()) << "it has waited for what cannot be written";
}

TEST_F(KZUnixPipesTest, ReportsAnEndOnceWhoeverBringsItAbout) {
  std::int64_t pipeInEvent = 0;
  FClient->OnPipeDisconnect = [&](auto&, std::int64_t ended) {
    pipeInEvent = FClient->Pipe();
    FClientDisconnects.push_back(ended);
  };
  for (const std::string end : {"server", "client", "socket file"}) {
    SCOPED_TRACE(end);
    ServeAndConnect();
    const std::int64_t pipe = FClient->Pipe();
    if (end == "server") FServer->SetActive(false);
    if (end == "socket file") {
      std::filesystem::remove(FSocketPath);
      // Refused although the main thread has not heard of the end. The time limit ends this.
      while (FClient->Write("nobody there")) SystemClock().Sleep(milliseconds(1));
      EXPECT_TRUE(FClient->Connected() && !FClient->Connect(0));
      while (FServer->Write(FServer->Clients(0), "nobody there")) continue;
    }
    for (int i = 0; i < 2 && end == "client"; ++i) {
      FClient->Disconnect(TWait::Yes);
      EXPECT_EQ(PipeCounters().ClientPipeThreads, 0) << "it has waited for them";
    }
    ASSERT_TRUE(Eventually([&] { return std::exchange(FDisconnects, 0) == 1; }));
    ASSERT_TRUE(Eventually([&] { return !FClient->Connected() && !FClientDisconnects.empty(); }));
    EXPECT_THAT(std::exchange(FClientDisconnects, {}), ElementsAre(pipe));
    EXPECT_EQ(pipeInEvent, end == "client" ? kNoPipe : pipe) << "forgotten after the event";
    EXPECT_EQ(FClient->Pipe(), kNoPipe);
  }
}

TEST_F(KZUnixPipesTest, ALateNoticeDoesNotTouchANewerConnection) {
  ServeAndConnect();
  const std::int64_t first = FClient->Pipe();
  FClient->Disconnect(TWait::No);
  ASSERT_TRUE(FClient->Connect(0));
  const std::int64_t second = FClient->Pipe();
  EXPECT_NE(second, first) << "the number is kept until the end was told";
  ASSERT_TRUE(Eventually([&] { return !FClientDisconnects.empty(); }));
  EXPECT_THAT(FClientDisconnects, ElementsAre(first));
  EXPECT_EQ(FClient->Pipe(), second);
  EXPECT_TRUE(FClient->Write("still here"));
  EXPECT_TRUE(Eventually([&] { return FServerReceived.size() == 1; }));
}

TEST_F(KZUnixPipesTest, MayBeDisconnectedAndFreedInItsOwnEvents) {
  std::int64_t pipe = 0;
  FServer->SetActive(true);
  FServer->OnPipeConnect = [&](auto&, std::int64_t connected) { pipe = connected; };
  int threadsLeft = 0;
  for (int round = 0; round < 60; ++round) {
    auto client = std::make_unique<TPipeClient>();
    const auto free = [&](auto&&...) {
      client.reset();
      threadsLeft += PipeCounters().ClientPipeThreads;
    };
    if (round % 3 > 0) client->OnPipeDisconnect = free;
    client->OnPipeMessage = [&](auto&, std::int64_t, std::string_view) {
      if (round % 3 < 2) return free();
      client->Disconnect(TWait::Yes);
    };
    pipe = 0;
    ASSERT_TRUE(Eventually([&] { return client->Connect(0); }));
    ASSERT_TRUE(Eventually([&] { return pipe != 0; }));
    for (int i = 0; i < 100; ++i) FServer->Write(pipe, "go");
    // The wait runs the events that have come meanwhile.
    SystemClock().Sleep(milliseconds(round % 4));
    if (round % 3 == 1) client->Disconnect(TWait::Yes);
    ASSERT_TRUE(Eventually([&] { return client == nullptr; })) << round;
  }
  EXPECT_EQ(threadsLeft, 0) << "threads that post to a client that is gone";
  FServer->OnPipeConnect = [&](auto&, std::int64_t) { FServer.reset(); };
  ASSERT_TRUE(FClient->Connect(0));
  EXPECT_TRUE(Eventually([&] { return FServer == nullptr; }));
  // In the wait for the listener's end, but for luck.
  for (int round = 0; round < 10; ++round) {
    FServer = std::make_unique<TPipeServer>();
    ServeAndConnect();
    const TCrew crew = AskMainThread([&] { FServer.reset(); });
    FServer.get()->SetActive(false);
  }
}

// Without one of its threads there is no connection, and nobody is told of any.
TEST_F(KZUnixPipesTest, IsNotConnectedWhenAThreadCannotBeStarted) {
  const TAtEnd restore([] { threadsUntilFailure = 0; });
  FServer->OnPipeConnect = [&](auto&, std::int64_t) { FServerReceived.emplace_back("connect"); };
  ServeAndConnect();
  EXPECT_TRUE(Eventually([&] { return FServerReceived.size() == 1; }));
  threadsUntilFailure = 2;
  const TFileDescriptor peer = RawSocket(::connect);
  pollfd end{.fd = peer.Get(), .events = POLLRDHUP, .revents = 0};
  EXPECT_TRUE(Eventually([&] { return ::poll(&end, 1, 0) == 1; }));
  EXPECT_TRUE(FServerReceived.size() == 1 && FDisconnects == 0 && FServer->ClientCount() == 1);
  for (const int failing : {1, 2}) {
    threadsUntilFailure = failing;
    TPipeClient refused;
    refused.OnPipeDisconnect = FClient->OnPipeDisconnect;
    EXPECT_FALSE(refused.Connect(0) || refused.Connected());
    ProcessMessages();
  }
  EXPECT_THAT(FClientDisconnects, IsEmpty());
}

// What each pipe went through, in the order of its events, whatever its peer did before it died.
TEST_F(KZUnixPipesTest, RaisesTheEventsOfEachPipeInOrderWhateverEndsIt) {
  std::set<std::int64_t> connected;
  int outOfOrder = 0;
  FServer->OnPipeConnect = [&](auto&, std::int64_t pipe) {
    outOfOrder += connected.insert(pipe).second ? 0 : 1;
    FServer->Write(pipe, "to a peer that may be gone");
  };
  FServer->OnPipeMessage = [&](auto&, std::int64_t pipe, std::string_view payload) {
    outOfOrder += connected.contains(pipe) ? 0 : 1;
    FServerReceived.emplace_back(payload);
    CheckSynchronize(milliseconds(0));
  };
  FServer->OnPipeDisconnect = [&](auto&, std::int64_t pipe) {
    outOfOrder += connected.erase(pipe) == 1 ? 0 : 1;
    ++FDisconnects;
  };
  ServeAndConnect();
  const std::string frames = Frame("first") + Frame("second");
  for (std::size_t sent = 0; sent <= frames.size(); ++sent) {
    SCOPED_TRACE(sent);
    FServerReceived.clear();
    const TFileDescriptor peer = RawSocket(::connect);
    ASSERT_EQ(WriteAll(peer.Get(), frames.substr(0, sent)), 0);
    ::shutdown(peer.Get(), sent % 2 == 0 ? SHUT_RDWR : SHUT_WR);
    ASSERT_TRUE(Eventually([&] { return FDisconnects == static_cast<int>(sent) + 1; }));
    EXPECT_EQ(FServerReceived.size(), (sent >= 25 ? 1U : 0U) + (sent == frames.size() ? 1U : 0U));
  }
  FServer->SetActive(false);
  EXPECT_TRUE(Eventually([&] { return connected.empty(); }));
  EXPECT_EQ(outOfOrder, 0);
}

TEST_F(KZUnixPipesTest, StopsReadingAFloodUntilItIsDelivered) {
  const TFileDescriptor peer = ServeAndConnectRaw();
  std::size_t received = 0;
  FServer->OnPipeMessage = [&](auto&, std::int64_t, std::string_view) { ++received; };
  std::string frames;
  for (int i = 0; i < 1000; ++i) frames += Frame("x");
  // Until the socket takes no more for a while; the main thread does nothing meanwhile. 16 MiB at
  // 257 bytes each are 65,281 messages; the socket's own buffers hold the rest.
  constexpr std::size_t kLeast = 65'281U * 21;
  std::size_t sent = 0;
  pollfd writable{.fd = peer.Get(), .events = POLLOUT, .revents = 0};
  while (sent < 100'000'000 && ::poll(&writable, 1, sent > kLeast ? 500 : 30'000) > 0) {
    const std::size_t at = sent % frames.size();
    const ssize_t taken = ::send(peer.Get(), &frames[at], frames.size() - at, MSG_DONTWAIT);
    if (taken > 0) sent += static_cast<std::size_t>(taken);
  }
  EXPECT_GT(sent, kLeast);
  EXPECT_LT(sent, 5'000'000U);
  EXPECT_TRUE(Eventually([&] { return received == sent / 21; }));
}

// Nobody waits for a peer that does not read: neither Write nor the end.
TEST_F(KZUnixPipesTest, ASlowReaderLosesItsOldestFrames) {
  const TFileDescriptor reader = ServeAndConnectRaw();
  const std::string payload(1'000'000, 'p');
  int sent = 0;
  FServer->OnPipeSent = [&](auto&&...) { ++sent; };
  for (int i = 0; i < 1000; ++i) {
    FServer->Write(FServer->Clients(1), payload);
    FServer->LimitWriteQueues(3);
  }
  FServer->SetActive(false);
  EXPECT_TRUE(Eventually([&] { return PipeCounters().ServerPipes == 0; }));
  EXPECT_EQ(sent, 0) << "none was written whole";
}

// The world sees a socket that every user may connect to and a lock that is held, and children
// inherit nothing. Connections wait in the queue while the main thread is busy.
TEST_F(KZUnixPipesTest, LeavesInTheWorldWhatItShall) {
  const mode_t before = ::umask(077);
  const TAtEnd restore([&] { ::umask(before); });
  const std::set<int> old = OpenDescriptors();
  FFolder.Write("PipeServer", "an old file");
  ServeAndConnect();
  std::vector<TFileDescriptor> peers;
  for (int i = 0; i < 100; ++i) peers.push_back(RawSocket(::connect));
  ASSERT_TRUE(Eventually([&] { return FServer->ClientCount() == 101; }));
  for (const int descriptor : OpenDescriptors()) {
    EXPECT_TRUE(old.contains(descriptor) || ::fcntl(descriptor, F_GETFD) == FD_CLOEXEC);
  }
  EXPECT_EQ(std::filesystem::status(FSocketPath).permissions(), std::filesystem::perms::all);
  EXPECT_EQ(TNamedMutex::Create(FSocketPath + ".mutex").Error(), kErrorAlreadyExists);
  peers.push_back(RawSocket(::connect));  // Is accepted while the server ends, or not at all.
  FServer->SetActive(false);
  EXPECT_FALSE(FServer->Active() || FFolder.Has("PipeServer"));
  EXPECT_EQ(TNamedMutex::Create(FSocketPath + ".mutex").Error(), 0);
}

TEST_F(KZUnixPipesTest, SaysWhyItCannotListenOrAcceptAndGoesOn) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer needs descriptors of its own";
#endif
  KZCP::Init();
  const TAtEnd fini([] { KZCP::Fini(); });
  const TErrorLogInFolder log;
  const auto logSize = [&] { return std::filesystem::file_size(log.Folder().Path("error.log")); };
  std::filesystem::create_directory(FSocketPath);
  FServer->SetActive(true);
  EXPECT_TRUE(Eventually([&] { return !FServer->Active(); })) << "and can be switched on again";
  std::filesystem::remove(FSocketPath);

  // Without descriptors clients wait until there are some.
  ServeAndConnect();
  EXPECT_TRUE(Eventually([] { return Shows("PipeListen:fpaccept[PipeServer]"); }));
  TPipeClient last;
  TPipeServer other;
  other.SetPipeName("other");
  const auto leave = [&](int free) {
    std::vector<TFileDescriptor> taken;
    for (int i = 0; i < free; ++i) taken.emplace_back(::dup(0));
    return SetLimit(RLIMIT_NOFILE, static_cast<rlim_t>(taken.back().Get()) + 1);
  };
  const rlim_t limit = leave(2);  // For the request to end and the mutex.
  other.SetActive(true);
  EXPECT_TRUE(Eventually([&] { return !other.Active(); }));
  leave(1);
  const auto before = logSize();
  EXPECT_TRUE(last.Connect(0));
  EXPECT_FALSE(TPipeClient().Connect(0));
  EXPECT_TRUE(Eventually([&] { return logSize() > before; }));
  EXPECT_TRUE(Eventually([&] { return Shows("PipeListen:Pause"); })) << "no spin";
  SetLimit(RLIMIT_NOFILE, limit);
  EXPECT_TRUE(Eventually([&] { return FServer->ClientCount() == 2; }));
  EXPECT_THAT(log.Text(),
              AllOf(HasSubstr("listen on " + FSocketPath + ": Address already in use"),
                    HasSubstr("listen on " + FFolder.Path("other") + ": Too many open files"),
                    HasSubstr("accept on " + FSocketPath + ": Too many open files")));
  EXPECT_TRUE(FClient->Connected()) << "a second of silence is no end";
}

// Connects and disconnects from a thread that is not the main one, as the watchdog does, while the
// server's side dies, messages arrive and handlers disconnect.
TEST_F(KZUnixPipesTest, SurvivesThousandsOfConnectsAndDisconnects) {
  constexpr int kConnects = 1000;
  const std::set<int> before = OpenDescriptors();
  std::atomic<int> connects = 0;
  std::atomic<bool> enough = false;
  int messages = 0;
  FClient->OnPipeMessage = [&](auto&, std::int64_t, std::string_view) {
    if (++messages % 3 == 0) FClient->Disconnect(TWait::No);
  };
  FServer->OnPipeConnect = [&](auto&, std::int64_t pipe) { FServer->Write(pipe, "hello"); };
  TCrew ticker(1, [&](int) {
    std::mt19937 random(7);
    while (!enough) {
      if (!FClient->Connected() && FClient->Connect(0)) ++connects;
      FClient->Write("tick");
      // Every fourth connection may live for a while, and die by the server or by a handler.
      if (random() % 4 == 0) SystemClock().Sleep(milliseconds(random() % 8));
      FClient->Disconnect(random() % 8 == 0 ? TWait::Yes : TWait::No);
    }
  });
  std::mt19937 random(8);
  const auto done = [&] {
    if (random() % 100 == 0) FServer->SetActive(false);
    FServer->SetActive(true);
    return connects >= kConnects && messages > 0;
  };
  EXPECT_TRUE(Eventually(done, std::chrono::seconds(90)));
  enough = true;
  ticker.Join();
  FServer->SetActive(false);
  EXPECT_TRUE(Eventually([&] { return OpenDescriptors() == before; }));
}

// Signals whose handler does not restart system calls interrupt them: nothing is lost, and nobody
// waits. Were a wake-up lost, a round would take a second.
TEST_F(KZUnixPipesTest, AnswersAtOnceInAStormOfSignals) {
  struct sigaction interrupt {};
  interrupt.sa_handler = [](int) {};
  ::sigaction(SIGFPE, &interrupt, nullptr);  // The threads block all but the fatal ones.
  ServeAndConnect();
  FServer->OnPipeMessage = [&](auto&, std::int64_t pipe, std::string_view payload) {
    FServer->Write(pipe, payload);
  };
  std::size_t answers = 0;
  FClient->OnPipeMessage = [&](auto&, std::int64_t, std::string_view payload) {
    ++answers;
    FClient->Write(payload);
  };
  std::atomic<bool> enough = false;
  TCrew storm(1, [&](int) {
    while (!enough) {
      for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const pid_t id = std::stoi(task.path().filename());
        if (id != ::getpid() && id != ::gettid()) ::tgkill(::getpid(), id, SIGFPE);
      }
    }
  });
  FClient->Write("ping");
  EXPECT_TRUE(Eventually([&] { return answers >= 60; }));
  RawSocket(::connect).Close();
  EXPECT_TRUE(Eventually([&] { return FDisconnects == 1; })) << "the listener goes on";
  EXPECT_THAT(FClientDisconnects, IsEmpty());
  enough = true;
  storm.Join();
  ::signal(SIGFPE, SIG_IGN);  // Drops what is pending.
  ::signal(SIGFPE, SIG_DFL);
}

// Five pieces are three frames, so the room comes back to the same places.
TEST(TFrameParserTest, FindsThePayloadsAndKeepsTheMemoryOfItsReads) {
  for (const std::size_t length : {80U, 70'000U}) {
    const std::string payload(length, '*');
    const std::size_t piece = Frame(payload).size() * 3 / 5;
    TFrameParser parser;
    std::string stream;
    for (int i = 0; i < 300; ++i) stream += Frame(payload);
    std::set<const char*> places;
    int payloads = 0;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
      places.insert(parser.Room(piece).data());
      stream.copy(parser.Room(piece).data(), piece, at);
      parser.Filled(piece, [&](std::string_view each) { payloads += each == payload ? 1 : 0; });
    }
    EXPECT_EQ(payloads, 300) << length;
    // The memory of a huge frame is given back.
    EXPECT_TRUE(length == 70'000U || places.size() < 100U) << places.size();
  }
}

TEST(TWriteQueueTest, LosesItsOldestFramesAboveALimit) {
  TWriteQueue queue;
  for (const char* each : {"a", "b", "c"}) queue.Append(each);
  queue.Limit(2);
  for (const char* each : {"b", "c"}) EXPECT_EQ(*queue.Dequeue()->Buffer, Frame(each));
  EXPECT_FALSE(queue.Dequeue());
  queue.Close();
  EXPECT_FALSE(queue.Dequeue());
  queue.WaitForData(std::chrono::hours(1));  // The test's time limit would end it.
}

TEST(TBufferPoolTest, KeepsBuffersUpToItsLimits) {
  TBufferPool pool;
  for (int i = 0; i < 65; ++i) pool.Give(std::make_unique<std::string>(65'536, 'x'));
  EXPECT_EQ(pool.TakeHalf().size(), 32U);
  EXPECT_TRUE(pool.Take()->empty());
  for (int i = 0; i < 31; ++i) EXPECT_EQ(pool.Take()->capacity(), 65'536U);
  pool.Give(std::make_unique<std::string>(65'537, 'x'));
  EXPECT_LT(pool.Take()->capacity(), 100U);
}

TEST(TPayloadPoolTest, IsFullAboveSixteenMebibytesWithTheCostOfEachMessage) {
  const auto pool = std::make_shared<TPayloadPool>();
  std::vector<TMessagePayload> payloads;
  for (int i = 0; i < 65'536; ++i) payloads.push_back(MakePayload(pool, ""));
  EXPECT_FALSE(pool->IsFull()) << "16 MiB exactly, at 256 bytes each";
  payloads.push_back(MakePayload(pool, ""));
  EXPECT_TRUE(pool->IsFull());
  std::atomic<bool> waits = false;
  const TCrew reader(1, [&](int) {
    for (; pool->IsFull(); pool->WaitForRoom(std::chrono::hours(1))) waits = true;
  });
  EXPECT_TRUE(Eventually([&] { return waits.load(); }));
  payloads.pop_back();
}

}  // namespace
}  // namespace guardian

// In the place of the library's.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*work)(void*), void* argument) {
  if (guardian::threadsUntilFailure > 0 && --guardian::threadsUntilFailure == 0) return EAGAIN;
  static const auto next =
      reinterpret_cast<decltype(&pthread_create)>(::dlsym(RTLD_NEXT, "pthread_create"));
  return next(thread, attributes, work, argument);
}
