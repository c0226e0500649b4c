#include "ipc/KZUnixPipes.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "common/ErrorLog.h"
#include "common/MainThread.h"
#include "common/Settings.h"
#include "common/Thread.h"
#include "diagnostics/exceptions/PipeCounters.h"
#include "ipc/MessageUnit.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::size_t OpenDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& each : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

// A listening socket of which the test does everything itself, or a connected one.
TFileDescriptor RawSocket(const std::string& path, bool listens) {
  TFileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  const int result = listens ? ::bind(socket.Get(), generic, sizeof(address))
                             : ::connect(socket.Get(), generic, sizeof(address));
  if (result != 0 || (listens && ::listen(socket.Get(), 1) != 0)) return {};
  return socket;
}

class KZUnixPipesTest : public testing::Test {
 protected:
  KZUnixPipesTest() {
    StartMessages();
    StartPipes();
    SetPipeDirectory(FFolder.Path());
    FServer = std::make_unique<TPipeServer>();
    FServer->OnPipeConnect = [this](auto&, std::int64_t) { ++FConnects; };
    FServer->OnPipeDisconnect = [this](auto&, std::int64_t) { ++FDisconnects; };
    FServer->OnPipeMessage = [this](auto&, std::int64_t, std::string_view payload) {
      FServerReceived.emplace_back(payload);
    };
    FClient = MakeClient();
  }
  ~KZUnixPipesTest() override {
    FClient.reset();
    FServer.reset();
    StopPipes();
    StopMessages();
  }

  std::unique_ptr<TPipeClient> MakeClient() {
    auto client = std::make_unique<TPipeClient>();
    client->OnPipeDisconnect = [this](auto&, std::int64_t pipe) {
      FClientDisconnects.push_back(pipe);
    };
    client->OnPipeMessage = [this](auto&, std::int64_t, std::string_view payload) {
      FClientReceived.emplace_back(payload);
    };
    return client;
  }

  std::string SocketPath() const { return FFolder.Path("PipeServer"); }

  void Serve() {
    FServer->SetActive(true);
    ASSERT_TRUE(Eventually([&] { return FFolder.Has("PipeServer"); }));
  }
  void ServeAndConnect() {
    Serve();
    ASSERT_TRUE(FClient->Connect(5000));
    ASSERT_TRUE(Eventually([&] { return FConnects == 1; }));
  }

  TKZCustomApplication FApplication;
  const TTempFolder FFolder;
  std::unique_ptr<TPipeServer> FServer;
  std::unique_ptr<TPipeClient> FClient;
  int FConnects = 0;
  int FDisconnects = 0;
  std::vector<std::string> FServerReceived;
  std::vector<std::string> FClientReceived;
  std::vector<std::int64_t> FClientDisconnects;
};

TEST_F(KZUnixPipesTest, ChecksNamesAndPaths) {
  EXPECT_NO_THROW(FClient->SetPipeName(std::string(63, 'n')));
  for (const std::string& name : {std::string(64, 'n'), std::string(), std::string("a\\b")}) {
    EXPECT_THROW(FClient->SetPipeName(name), EPipeException) << name;
    EXPECT_THROW(FServer->SetPipeName(name), EPipeException) << name;
  }
  SetPipeDirectory("/" + std::string(106 - 11, 'd'));
  EXPECT_EQ(FullPipeNameOf("PipeServer").size(), 107U);
  try {
    (void)FullPipeNameOf("PipeServer1");
    FAIL() << "108 bytes fit nowhere";
  } catch (const KZException& error) {
    EXPECT_EQ(error.Message(), "Length(FullPipeName)+1>sizeof(FSockAddr.sun_path)");
  }
}

TEST_F(KZUnixPipesTest, TakesItsDirectoryFromTheSettingsAtFirstUse) {
  SetPipeDirectory("");
  Settings().MutexDirectory.Set("/m");
  EXPECT_EQ(PipeDirectory(), "/m");
  Settings().MutexDirectory.Set("/other");
  EXPECT_EQ(PipeDirectory(), "/m");
  SetPipeDirectory("");
  Settings().MutexDirectory.Set("");
  EXPECT_EQ(PipeDirectory(), "/tmp");
}

TEST_F(KZUnixPipesTest, RefusesToBeMadeOrFreedOutsideTheMainThread) {
  std::string created;
  std::string freed;
  TFunctionThread thread("worker", [&] {
    try {
      TPipeClient client;
    } catch (const KZException& error) {
      created = error.Message();
    }
    try {
      TPipeServer::Free(FServer);
    } catch (const KZException& error) {
      freed = error.Message();
    }
  });
  thread.Start();
  thread.Join();
  EXPECT_EQ(created, "Must be in main thread to create a TPipeClient.");
  EXPECT_EQ(freed, "Must be in main thread to destroy a TPipeServer  (Pipe:PipeServer).");
  EXPECT_NE(FServer, nullptr);
}

TEST_F(KZUnixPipesTest, CarriesFramesBothWays) {
  EXPECT_EQ(FClient->Pipe(), 4'294'967'295);
  EXPECT_FALSE(FClient->Write("nobody there"));
  std::vector<std::uint32_t> sizes;
  FClient->OnPipeSent = [&](auto&, std::int64_t, std::uint32_t size) { sizes.push_back(size); };
  ServeAndConnect();
  const std::string large(3'000'000, 'x');
  EXPECT_TRUE(FClient->Write("one"));
  EXPECT_TRUE(FClient->Write(large));
  EXPECT_TRUE(FServer->Write(FServer->Clients(0), "answer"));
  EXPECT_FALSE(FServer->Write(12'345, "nobody"));
  ASSERT_TRUE(Eventually([&] {
    return FServerReceived.size() == 2 && !FClientReceived.empty() && sizes.size() == 2;
  }));
  EXPECT_EQ(FServerReceived[0], "one");
  EXPECT_TRUE(FServerReceived[1] == large);
  EXPECT_THAT(FClientReceived, ElementsAre("answer"));
  EXPECT_THAT(sizes, ElementsAre(0, 0)) << "never the true size";
  EXPECT_THROW(FClient->SetPipeName("other"), EPipeException);
  EXPECT_THROW(FServer->SetPipeName("other"), EPipeException);
}

TEST_F(KZUnixPipesTest, FailsAtOnceWithoutASocketFileAndTriesAStaleOneAgain) {
  EXPECT_FALSE(FClient->Connect(1'000'000));
  ASSERT_TRUE(RawSocket(SocketPath(), true));  // Closed at once; the file stays.
  EXPECT_FALSE(FClient->Connect(0));
  FFolder.Write("plain", "");
  FClient->SetPipeName("plain");
  EXPECT_FALSE(FClient->Connect(499));
  EXPECT_FALSE(FClient->Connected());
  FClient->SetPipeName("PipeServer");
  Serve();
  EXPECT_TRUE(Eventually([&] { return FClient->Connect(500); }));
}

TEST_F(KZUnixPipesTest, DoesNotHangOnAServerThatDoesNotAccept) {
  const TFileDescriptor server = RawSocket(SocketPath(), true);
  int refused = 0;
  std::vector<std::unique_ptr<TPipeClient>> clients;
  for (int i = 0; i < 8; ++i) {
    clients.push_back(MakeClient());
    if (!clients.back()->Connect(0)) ++refused;
  }
  EXPECT_GT(refused, 0);
  TCancellation stopping;
  stopping.Cancel();
  TPipeClient client(&stopping);
  EXPECT_FALSE(client.Connect(3'600'000));
}

TEST_F(KZUnixPipesTest, ReportsAnEndOnceWhoeverBringsItAbout) {
  ServeAndConnect();
  const std::int64_t first = FClient->Pipe();
  FServer->SetActive(false);
  ASSERT_TRUE(Eventually([&] { return !FClientDisconnects.empty() && FDisconnects == 1; }));
  EXPECT_THAT(FClientDisconnects, ElementsAre(first));
  EXPECT_FALSE(FClient->Connected());
  EXPECT_EQ(FClient->Pipe(), kNoPipe);
  EXPECT_FALSE(FFolder.Has("PipeServer"));

  Serve();
  ASSERT_TRUE(Eventually([&] { return FClient->Connect(0); }));
  const std::int64_t second = FClient->Pipe();
  FClient->Disconnect(TPipeClient::TWait::Yes);
  FClient->Disconnect(TPipeClient::TWait::Yes);
  ASSERT_TRUE(Eventually([&] { return FClientDisconnects.size() == 2 && FDisconnects == 2; }));
  EXPECT_EQ(FClientDisconnects[1], second);
}

TEST_F(KZUnixPipesTest, ALateNoticeDoesNotTouchANewerConnection) {
  ServeAndConnect();
  const std::int64_t first = FClient->Pipe();
  FClient->Disconnect(TPipeClient::TWait::No);
  ASSERT_TRUE(FClient->Connect(5000));
  const std::int64_t second = FClient->Pipe();
  EXPECT_NE(second, first) << "the number is kept until the end was told";
  ASSERT_TRUE(Eventually([&] { return !FClientDisconnects.empty(); }));
  EXPECT_THAT(FClientDisconnects, ElementsAre(first));
  EXPECT_TRUE(FClient->Connected());
  EXPECT_EQ(FClient->Pipe(), second);
  EXPECT_TRUE(FClient->Write("still here"));
  EXPECT_TRUE(Eventually([&] { return FServerReceived.size() == 1; }));
}

TEST_F(KZUnixPipesTest, DeliversWhatCameBeforeTheEnd) {
  ServeAndConnect();
  for (int i = 0; i < 100; ++i) FServer->Write(FServer->Clients(0), "record " + std::to_string(i));
  std::size_t receivedBefore = 0;
  FClient->OnPipeDisconnect = [&](auto&, std::int64_t) { receivedBefore = FClientReceived.size(); };
  ASSERT_TRUE(Eventually([&] { return FClientReceived.size() == 100; }));
  FServer->SetActive(false);
  ASSERT_TRUE(Eventually([&] { return receivedBefore > 0; }));
  EXPECT_EQ(receivedBefore, 100U);
}

TEST_F(KZUnixPipesTest, TakesTheRemovalOfTheSocketFileForADisconnect) {
  ServeAndConnect();
  std::filesystem::remove(SocketPath());
  EXPECT_TRUE(Eventually([&] { return FClientDisconnects.size() == 1; }));
}

TEST_F(KZUnixPipesTest, LosesAFrameThatADyingPeerCutsOff) {
  const TFileDescriptor server = RawSocket(SocketPath(), true);
  ASSERT_TRUE(FClient->Connect(0));
  {
    const TFileDescriptor peer(::accept(server.Get(), nullptr, nullptr));
    const std::string bytes = BuildFrame("whole") + BuildFrame("cut").substr(0, 15);
    ASSERT_EQ(WriteAll(peer.Get(), bytes), 0);
  }
  ASSERT_TRUE(Eventually([&] { return !FClientDisconnects.empty(); }));
  EXPECT_THAT(FClientReceived, ElementsAre("whole"));
}

TEST_F(KZUnixPipesTest, MayBeDisconnectedAndFreedInItsOwnEvents) {
  Serve();
  FServer->OnPipeConnect = [&](auto&, std::int64_t pipe) {
    for (int i = 0; i < 5; ++i) FServer->Write(pipe, "go");
  };
  for (int round = 0; round < 30; ++round) {
    auto client = MakeClient();
    ASSERT_TRUE(client->Connect(5000));
    switch (round % 3) {
      case 0:
        client->OnPipeMessage = [&](auto&, std::int64_t, std::string_view) { client.reset(); };
        break;
      case 1:
        client->OnPipeDisconnect = [&](auto&, std::int64_t) { client.reset(); };
        client->OnPipeMessage = [&](auto&, std::int64_t, std::string_view) {
          client->Disconnect(TPipeClient::TWait::Yes);
        };
        break;
      default:
        client->OnPipeMessage = [&](auto&, std::int64_t, std::string_view) {
          client->Disconnect(TPipeClient::TWait::Yes);
          client.reset();
        };
    }
    ASSERT_TRUE(Eventually([&] { return client == nullptr; })) << round;
  }
  FServer->OnPipeConnect = [&](auto&, std::int64_t) { FServer.reset(); };
  ASSERT_TRUE(FClient->Connect(5000));
  EXPECT_TRUE(Eventually([&] { return FServer == nullptr; }));
}

// What each pipe went through, in the order of its events.
TEST_F(KZUnixPipesTest, RaisesTheEventsOfEachPipeInOrderWhateverEndsIt) {
  std::set<std::int64_t> connected;
  int outOfOrder = 0;
  FServer->OnPipeConnect = [&](auto&, std::int64_t pipe) {
    if (!connected.insert(pipe).second) ++outOfOrder;
  };
  FServer->OnPipeMessage = [&](auto&, std::int64_t pipe, std::string_view) {
    if (!connected.contains(pipe)) ++outOfOrder;
    CheckSynchronize(milliseconds(0));
  };
  FServer->OnPipeDisconnect = [&](auto&, std::int64_t pipe) {
    if (connected.erase(pipe) == 0) ++outOfOrder;
  };
  std::string flood;
  for (int i = 0; i < 100; ++i) flood += BuildFrame("message");
  for (int round = 0; round < 100; ++round) {
    Serve();
    TFileDescriptor peer;
    ASSERT_TRUE(Eventually([&] {
      peer = RawSocket(SocketPath(), false);
      return static_cast<bool>(peer);
    }));
    (void)::send(peer.Get(), flood.data(), flood.size(), MSG_NOSIGNAL);
    for (int i = 0; i < round % 4; ++i) CheckSynchronize(milliseconds(1));
    FServer->SetActive(false);
  }
  EXPECT_TRUE(Eventually([&] { return connected.empty(); }));
  EXPECT_EQ(outOfOrder, 0);
}

TEST_F(KZUnixPipesTest, HoldsAFloodOfEmptyFramesBackWhileNobodyTakesThem) {
  Serve();
  TFileDescriptor peer;
  ASSERT_TRUE(Eventually([&] {
    if (!peer) peer = RawSocket(SocketPath(), false);
    return FServer->ClientCount() == 1;
  }));
  std::string frames;
  for (int i = 0; i < 1000; ++i) frames += BuildFrame("");
  // Until the socket takes no more for a while; the main thread does nothing meanwhile.
  std::size_t sent = 0;
  pollfd writable{.fd = peer.Get(), .events = POLLOUT, .revents = 0};
  while (sent < 100'000'000 && ::poll(&writable, 1, 500) > 0) {
    const ssize_t taken =
        ::send(peer.Get(), frames.data(), frames.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (taken > 0) sent += static_cast<std::size_t>(taken);
  }
  EXPECT_LT(sent, 10'000'000U);
}

TEST_F(KZUnixPipesTest, StaysOffWhenAnEventAsksForMoreWhileItIsSwitchedOff) {
  ServeAndConnect();
  FServer->OnPipeMessage = [&](auto&, std::int64_t, std::string_view) {
    FServer->SetActive(false);
    FServer->SetActive(true);
  };
  for (int i = 0; i < 1000; ++i) FClient->Write("again");
  FServer->SetActive(false);
  ASSERT_TRUE(Eventually([&] { return FDisconnects == 1; }));
  FServer->SetActive(false);
  FServer->OnPipeMessage = nullptr;
  Serve();
  EXPECT_TRUE(Eventually([&] { return FClient->Connect(0); }));
}

TEST_F(KZUnixPipesTest, ASlowReaderLosesItsOldestFrames) {
  Serve();
  TFileDescriptor reader;
  ASSERT_TRUE(Eventually([&] {
    if (!reader) reader = RawSocket(SocketPath(), false);
    return FServer->ClientCount() == 1;
  }));
  const std::string payload(100'000, 'p');
  for (int i = 0; i < 1000; ++i) {
    FServer->Write(FServer->Clients(0), payload);
    FServer->LimitWriteQueues(3);
  }
  // What the socket itself took, and at most three frames and the one being written.
  TFrameParser parser;
  int received = 0;
  FServer->Write(FServer->Clients(0), "last");
  std::string last;
  std::string bytes(1'000'000, '\0');
  while (last != "last") {
    const ssize_t got = ::read(reader.Get(), bytes.data(), bytes.size());
    ASSERT_GT(got, 0);
    parser.Feed({bytes.data(), static_cast<std::size_t>(got)}, [&](std::string_view each) {
      ++received;
      last = each.substr(0, 4);
    });
  }
  EXPECT_LT(received, 100);
  EXPECT_GE(received, 4);
}

TEST_F(KZUnixPipesTest, AFloodIsHeldBackUntilItIsDelivered) {
  ServeAndConnect();
  const std::string payload(1'000'000, 'f');
  for (int i = 0; i < 200; ++i) FClient->Write(payload);
  std::size_t bytes = 0;
  FServer->OnPipeMessage = [&](auto&, std::int64_t, std::string_view each) {
    bytes += each.size();
  };
  EXPECT_TRUE(Eventually([&] { return bytes == 200 * payload.size(); }));
}

TEST_F(KZUnixPipesTest, ServesAHundredClients) {
  Serve();
  std::vector<std::unique_ptr<TPipeClient>> clients;
  for (int i = 0; i < 100; ++i) {
    clients.push_back(MakeClient());
    ASSERT_TRUE(clients.back()->Connect(5000)) << i;
    clients.back()->Write("from " + std::to_string(i));
  }
  ASSERT_TRUE(Eventually([&] { return FServerReceived.size() == 100; }));
  EXPECT_EQ(FServer->ClientCount(), 100U);
  EXPECT_EQ(FServer->Clients(100), 0);
  for (std::size_t i = 0; i < 100; ++i) FServer->Write(FServer->Clients(i), "back");
  ASSERT_TRUE(Eventually([&] { return FClientReceived.size() == 100; }));
  clients.clear();
  EXPECT_TRUE(Eventually([&] { return FServer->ClientCount() == 0 && FDisconnects == 100; }));
}

TEST_F(KZUnixPipesTest, SaysWhyItCannotListenAndLeavesAPathThatIsNoSocketAlone) {
  ASSERT_TRUE(ErrorLog().Open(FFolder.Path("error.log")));
  SetPipeDirectory(FFolder.Path("missing"));
  FServer->SetActive(true);
  EXPECT_TRUE(Eventually([&] {
    return FFolder.Read("error.log")
               .find(" KZUnixPipes: create mutex " + FFolder.Path("missing") +
                     "/PipeServer.mutex: No such file or directory") != std::string::npos;
  }));
  FServer->SetActive(false);
  SetPipeDirectory(FFolder.Path());
  std::filesystem::create_directories(SocketPath() + "/inside");
  FServer->SetActive(true);
  EXPECT_TRUE(Eventually([&] {
    return FFolder.Read("error.log").find(" KZUnixPipes: listen on " + SocketPath()) !=
           std::string::npos;
  }));
  ErrorLog().Close();
}

TEST_F(KZUnixPipesTest, NamesWhatIsLeftAtTheEnd) {
  ServeAndConnect();
  ASSERT_TRUE(ErrorLog().Open(FFolder.Path("error.log")));
  StopPipes();
  ErrorLog().Close();
  EXPECT_THAT(FFolder.Read("error.log"), HasSubstr(" KZUnixPipes: ValidObjects still contains "));
  EXPECT_THAT(FFolder.Read("error.log"), HasSubstr(" PipeClientThread"));
  EXPECT_THAT(FFolder.Read("error.log"),
              HasSubstr(" KZUnixPipes: Not all pipes closed at end of process.\n"));
}

// Connects and disconnects from a thread that is not the main one, as the watchdog does, while the
// server's side dies, messages arrive and handlers disconnect.
TEST_F(KZUnixPipesTest, SurvivesThousandsOfConnectsAndDisconnects) {
  const std::size_t before = OpenDescriptors();
  const std::int64_t misses = ValidObjects().Misses();
  Serve();
  constexpr int kConnects = 2000;
  std::atomic<int> connects = 0;
  int messages = 0;
  TKZEvent heard("heard");
  FClient->OnPipeMessage = [&](auto&, std::int64_t, std::string_view) {
    if (++messages % 3 == 0) FClient->Disconnect(TPipeClient::TWait::No);
    heard.Signal();
  };
  FServer->OnPipeConnect = [&](auto&, std::int64_t pipe) { FServer->Write(pipe, "hello"); };
  TFunctionThread ticker("ticker", [&] {
    std::mt19937 random(7);
    while (connects < kConnects) {
      if (!FClient->Connected() && FClient->Connect(0)) ++connects;
      FClient->Write("tick");
      // Every fourth connection may live for a while, and die by the server or by a handler.
      if (random() % 4 == 0) heard.WaitFor(milliseconds(20));
      FClient->Disconnect(random() % 8 == 0 ? TPipeClient::TWait::Yes : TPipeClient::TWait::No);
    }
  });
  ticker.Start();
  std::mt19937 random(8);
  ASSERT_TRUE(Eventually([&] {
    if (random() % 100 == 0) {
      FServer->SetActive(false);
      FServer->SetActive(true);
    }
    return connects >= kConnects;
  }));
  ticker.Join();
  FClient->Disconnect(TPipeClient::TWait::Yes);
  FServer->SetActive(false);
  EXPECT_TRUE(Eventually([&] {
    return PipeCounters().ClientPipes == 0 && PipeCounters().ServerPipes == 0 &&
           PipeCounters().ClientPipeThreads == 0 && PipeCounters().ServerPipeThreads == 0;
  }));
  EXPECT_LE(OpenDescriptors(), before);
  EXPECT_EQ(ValidObjects().Misses(), misses);
  EXPECT_GT(messages, 0);
}

TEST_F(KZUnixPipesTest, FreeingEndsEverythingInEveryState) {
  for (int round = 0; round < 200; ++round) {
    Serve();
    auto client = MakeClient();
    ASSERT_TRUE(Eventually([&] { return client->Connect(0); }));
    if (round % 2 == 0) client->Write("x");
    if (round % 3 == 0) client->Disconnect(TPipeClient::TWait::No);
    if (round % 5 == 0) FServer->SetActive(false);
    client.reset();
    FServer->SetActive(false);
  }
  EXPECT_TRUE(Eventually([&] { return PipeCounters().ServerPipes == 0; }));
  EXPECT_EQ(PipeCounters().ClientPipes, 0);
  EXPECT_EQ(PipeCounters().ClientPipeThreads, 0);
}

}  // namespace
}  // namespace guardian
