#include "ipc/KZUnixPipes.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <set>

#include "common/AtEnd.h"
#include "common/NamedMutex.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/exceptions/PipeCounters.h"
#include "ipc/MessageUnit.h"
#include "support/ErrorLogInFolder.h"
#include "support/OpenDescriptors.h"
#include "support/SettingsBackup.h"
#include "support/ThrownMessage.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using TWait = TPipeClient::TWait;

std::string Frame(std::string_view payload) {
  std::string frame;
  AppendFrame(frame, payload);
  return frame;
}

// A socket of which the test does everything itself: one that listens, or a connected one. Empty
// when that fails.
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

class KZUnixPipesTest : public TUnitsTest {
 protected:
  KZUnixPipesTest() {
    FServer->OnPipeConnect = [this](auto&, std::int64_t) { ++FConnects; };
    FServer->OnPipeDisconnect = [this](auto&, std::int64_t) { ++FDisconnects; };
    FServer->OnPipeMessage = [this](auto&, std::int64_t, std::string_view payload) {
      FServerReceived.emplace_back(payload);
    };
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
    ASSERT_TRUE(Eventually([&] { return FConnects == 1 && FServer->ClientCount() == 1; }));
  }
  // A connection of which the test plays the client.
  TFileDescriptor ServeAndConnectRaw() {
    FServer->SetActive(true);
    TFileDescriptor peer;
    EXPECT_TRUE(Eventually([&] {
      if (!peer) peer = RawSocket(SocketPath(), false);
      return FServer->ClientCount() == 1;
    }));
    return peer;
  }

  std::unique_ptr<TPipeServer> FServer = std::make_unique<TPipeServer>();
  std::unique_ptr<TPipeClient> FClient = MakeClient();
  int FConnects = 0;
  int FDisconnects = 0;
  std::vector<std::string> FServerReceived;
  std::vector<std::string> FClientReceived;
  std::vector<std::int64_t> FClientDisconnects;
};

TEST_F(KZUnixPipesTest, ChecksNamesAndPaths) {
  EXPECT_NO_THROW(FClient->SetPipeName(std::string(63, 'n')));
  for (const std::string& name : {std::string(64, 'n'), std::string(), std::string("a\\b")}) {
    const auto set = [&](auto& end) { return ThrownMessage([&] { end->SetPipeName(name); }); };
    EXPECT_EQ(set(FClient), "Invalid pipe name specified!");
    EXPECT_EQ(set(FServer), "Invalid pipe name specified!");
  }
  // The longest path works, one byte more is refused.
  FClient->SetPipeName("PipeServer");
  const std::string directory = FFolder.Path(std::string(106 - 11 - FFolder.Path().size(), 'd'));
  std::filesystem::create_directory(directory);
  SetPipeDirectory(directory);
  FServer->SetActive(true);
  EXPECT_TRUE(Eventually([&] { return FClient->Connect(0); }));
  EXPECT_EQ(ThrownMessage([&] { FServer->SetPipeName("other"); }),
            "Cannot change property while server is active!");
  EXPECT_EQ(ThrownMessage([&] { FClient->SetPipeName("other"); }),
            "Cannot change property when client is connected!");
  EXPECT_EQ(ThrownMessage([] { (void)FullPipeNameOf("PipeServer1"); }),
            "Length(FullPipeName)+1>sizeof(FSockAddr.sun_path)");
}

TEST_F(KZUnixPipesTest, TakesItsDirectoryFromTheSettingsAtFirstUse) {
  const TSettingsBackup backup;
  SetPipeDirectory("");
  Settings().MutexDirectory.Set("/m");
  EXPECT_EQ(PipeDirectory(), "/m");
  Settings().MutexDirectory.Set("");
  EXPECT_EQ(PipeDirectory(), "/m");
  StartPipes();
  EXPECT_EQ(PipeDirectory(), "/tmp");
}

TEST_F(KZUnixPipesTest, RefusesToBeMadeOrFreedOutsideTheMainThread) {
  InThread([&] {
    EXPECT_EQ(ThrownMessage([] { TPipeClient(); }),
              "Must be in main thread to create a TPipeClient.");
    EXPECT_EQ(ThrownMessage([] { TPipeServer(); }),
              "Must be in main thread to create a TPipeServer.");
    EXPECT_EQ(ThrownMessage([&] { TPipeClient::Free(FClient); }),
              "Must be in main thread to destroy a TPipeClient (Pipe:PipeServer).");
    EXPECT_EQ(ThrownMessage([&] { TPipeServer::Free(FServer); }),
              "Must be in main thread to destroy a TPipeServer  (Pipe:PipeServer).");
  });
  EXPECT_TRUE(FClient && FServer);
  TPipeClient::Free(FClient);
  TPipeServer::Free(FServer);
  EXPECT_FALSE(FClient || FServer);
}

TEST_F(KZUnixPipesTest, CarriesFramesBothWays) {
  EXPECT_EQ(FClient->Pipe(), 4'294'967'295);
  EXPECT_FALSE(FClient->Write("nobody there"));
  std::vector<std::uint32_t> sizes;
  FClient->OnPipeSent = [&](auto&, std::int64_t, std::uint32_t size) { sizes.push_back(size); };
  FClient->SetMaxFrameSize(6);
  ServeAndConnect();
  EXPECT_TRUE(FClient->Connect(0)) << "it is connected already";
  const std::string large(3'000'000, 'x');
  for (const std::string& each : {std::string("one"), std::string(), large}) FClient->Write(each);
  const std::int64_t pipe = FServer->Clients(0);
  EXPECT_EQ(FServer->Clients(1), 0);
  EXPECT_FALSE(FServer->Write(12'345, "nobody"));
  ASSERT_TRUE(Eventually([&] { return FServerReceived.size() == 2 && sizes.size() == 3; }));
  EXPECT_TRUE(FServerReceived == (std::vector<std::string>{"one", large})) << "nothing empty";
  EXPECT_THAT(sizes, ElementsAre(0, 0, 0)) << "never the true size";
  EXPECT_TRUE(FServer->Write(pipe, "answer"));
  ASSERT_TRUE(Eventually([&] { return FClientReceived.size() == 1; }));
  FServer->Write(pipe, "answers");
  EXPECT_TRUE(Eventually([&] {
    FServer->Write(pipe, "good");
    return FClientReceived.size() > 1;
  }));
  EXPECT_EQ(FClientReceived[1], "good") << "what was above the limit is dropped";
}

TEST_F(KZUnixPipesTest, RaisesErrorsWithTheirContext) {
  std::vector<std::pair<bool, std::int64_t>> errors;
  const TOnPipeError onError = [&](auto&, std::int64_t pipe, TPipeContext context, auto code) {
    EXPECT_EQ(pipe, 7);
    errors.emplace_back(context == TPipeContext::pcListener, code);
  };
  FServer->OnPipeError = onError;
  FClient->OnPipeError = onError;
  PostMessage(*FServer, 1124, 7, 111, 0);
  PostMessage(*FClient, 1125, 7, 104, 0);
  PostMessage(*FClient, 1127, 8, 0, 0);
  ProcessMessages();
  EXPECT_THAT(errors, ElementsAre(std::pair(true, 111), std::pair(false, 104)));
  EXPECT_THAT(FClientDisconnects, ElementsAre(8));
}

TEST_F(KZUnixPipesTest, TriesAgainEveryHalfSecondAsOftenAsTheTimeAllows) {
  EXPECT_FALSE(FClient->Connect(1'000'000)) << "at once, without a socket file";
  ASSERT_TRUE(RawSocket(SocketPath(), true));  // Closed at once; the file stays.
  // The server comes in the pause between the first two tries, in which the main thread works.
  const auto connectWhileItComes = [&](int waitMs) {
    const TCrew crew(1, [&](int) { Synchronize([&] { FServer->SetActive(true); }); });
    return FClient->Connect(waitMs);
  };
  EXPECT_FALSE(connectWhileItComes(499));
  FServer->SetActive(false);
  ASSERT_TRUE(RawSocket(SocketPath(), true));
  EXPECT_TRUE(connectWhileItComes(500));
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
  TPipeClient client(&stopping);
  const TCrew crew(1, [&](int) { Synchronize([&] { stopping.Cancel(); }); });
  EXPECT_FALSE(client.Connect(3'600'000));
}

TEST_F(KZUnixPipesTest, ReportsAnEndOnceWhoeverBringsItAbout) {
  ServeAndConnect();
  const std::int64_t first = FClient->Pipe();
  bool stillConnected = false;
  FClient->OnPipeDisconnect = [&](auto&, std::int64_t pipe) {
    stillConnected = FClient->Connected() && FClient->Pipe() == pipe;
    FClientDisconnects.push_back(pipe);
  };
  FServer->SetActive(false);
  EXPECT_FALSE(FServer->Active());
  ASSERT_TRUE(Eventually([&] { return !FClientDisconnects.empty() && FDisconnects == 1; }));
  EXPECT_THAT(FClientDisconnects, ElementsAre(first));
  EXPECT_TRUE(stillConnected) << "until its event is over";
  EXPECT_FALSE(FClient->Connected());
  EXPECT_EQ(FClient->Pipe(), kNoPipe);
  EXPECT_FALSE(FFolder.Has("PipeServer"));

  Serve();
  ASSERT_TRUE(Eventually([&] { return FClient->Connect(0); }));
  const std::int64_t second = FClient->Pipe();
  FClient->Disconnect(TWait::Yes);
  EXPECT_EQ(PipeCounters().ClientPipeThreads, 0) << "it has waited for them";
  FClient->Disconnect(TWait::Yes);
  EXPECT_FALSE(FClient->Connected());
  EXPECT_EQ(FClient->Pipe(), kNoPipe);
  ASSERT_TRUE(Eventually([&] { return FClientDisconnects.size() == 2 && FDisconnects == 2; }));
  EXPECT_EQ(FClientDisconnects[1], second);
}

TEST_F(KZUnixPipesTest, ALateNoticeDoesNotTouchANewerConnection) {
  ServeAndConnect();
  const std::int64_t first = FClient->Pipe();
  FClient->Disconnect(TWait::No);
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

TEST_F(KZUnixPipesTest, TakesTheRemovalOfTheSocketFileForADisconnect) {
  ServeAndConnect();
  std::filesystem::remove(SocketPath());
  EXPECT_TRUE(Eventually([&] { return FClientDisconnects.size() == 1; }));
}

TEST_F(KZUnixPipesTest, MayBeDisconnectedAndFreedInItsOwnEvents) {
  Serve();
  FServer->OnPipeConnect = [&](auto&, std::int64_t pipe) {
    for (int i = 0; i < 5; ++i) FServer->Write(pipe, "go");
  };
  int threadsLeft = 0;
  for (int round = 0; round < 60; ++round) {
    auto client = MakeClient();
    ASSERT_TRUE(client->Connect(5000));
    const auto free = [&](auto&&...) {
      client.reset();
      threadsLeft += PipeCounters().ClientPipeThreads;
    };
    if (round % 3 > 0) client->OnPipeDisconnect = free;
    client->OnPipeMessage = [&](auto&, std::int64_t, std::string_view) {
      if (round % 3 < 2) return free();
      client->Disconnect(TWait::Yes);
    };
    // The wait runs the events that have come meanwhile.
    SystemClock().Sleep(milliseconds(round % 2));
    if (round % 3 == 1) client->Disconnect(TWait::Yes);
    ASSERT_TRUE(Eventually([&] { return client == nullptr; })) << round;
  }
  EXPECT_EQ(threadsLeft, 0) << "threads that post to a client that is gone";
  FServer->OnPipeConnect = [&](auto&, std::int64_t) { FServer.reset(); };
  ASSERT_TRUE(FClient->Connect(5000));
  EXPECT_TRUE(Eventually([&] { return FServer == nullptr; }));
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
  const std::string frames = Frame("first") + Frame("second");
  Serve();
  for (std::size_t sent = 0; sent <= frames.size(); ++sent) {
    SCOPED_TRACE(sent);
    FServerReceived.clear();
    const TFileDescriptor peer = RawSocket(SocketPath(), false);
    ASSERT_EQ(WriteAll(peer.Get(), frames.substr(0, sent)), 0);
    ::shutdown(peer.Get(), sent % 2 == 0 ? SHUT_RDWR : SHUT_WR);
    ASSERT_TRUE(Eventually([&] { return FDisconnects == static_cast<int>(sent) + 1; }));
    EXPECT_EQ(FServerReceived.size(), (sent >= 25 ? 1U : 0U) + (sent == frames.size() ? 1U : 0U));
  }
  std::string flood;
  for (int i = 0; i < 100; ++i) flood += Frame("message");
  for (int round = 0; round < 50; ++round) {
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

TEST_F(KZUnixPipesTest, StopsReadingAFloodUntilItIsDelivered) {
  const TFileDescriptor peer = ServeAndConnectRaw();
  std::size_t received = 0;
  FServer->OnPipeMessage = [&](auto&, std::int64_t, std::string_view) { ++received; };
  std::string frames;
  for (int i = 0; i < 1000; ++i) frames += Frame("x");
  // Until the socket takes no more for a while; the main thread does nothing meanwhile.
  std::size_t sent = 0;
  pollfd writable{.fd = peer.Get(), .events = POLLOUT, .revents = 0};
  while (sent < 100'000'000 && ::poll(&writable, 1, 500) > 0) {
    const std::size_t at = sent % frames.size();
    const ssize_t taken =
        ::send(peer.Get(), &frames[at], frames.size() - at, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (taken > 0) sent += static_cast<std::size_t>(taken);
  }
  // 16 MiB at 257 bytes each are 65,281 messages; the socket's own buffers hold the rest.
  EXPECT_GT(sent, 65'281U * 21);
  EXPECT_LT(sent, 5'000'000U);
  EXPECT_TRUE(Eventually([&] { return received == sent / 21; }));
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

// Nobody waits for a peer that does not read: neither Write nor the end.
TEST_F(KZUnixPipesTest, ASlowReaderLosesItsOldestFrames) {
  const TFileDescriptor reader = ServeAndConnectRaw();
  const std::int64_t pipe = FServer->Clients(0);
  const std::string payload(100'000, 'p');
  for (int i = 0; i < 1000; ++i) {
    FServer->Write(pipe, payload);
    FServer->LimitWriteQueues(3);
  }
  FServer->Write(pipe, "last");
  // What the socket itself took, and at most three frames and the one being written.
  const std::string last = Frame("last");
  std::string received;
  std::string bytes(1'000'000, '\0');
  while (!received.ends_with(last)) {
    const ssize_t got = ::read(reader.Get(), bytes.data(), bytes.size());
    ASSERT_GT(got, 0);
    received.append(bytes, 0, static_cast<std::size_t>(got));
  }
  EXPECT_LT(received.size(), 100 * payload.size());
  EXPECT_GE(received.size(), 4 * payload.size());
  EXPECT_EQ((received.size() - last.size()) % (payload.size() + 20), 0U) << "whole frames";
  for (int i = 0; i < 1000; ++i) FServer->Write(pipe, payload);
  FServer->SetActive(false);
  EXPECT_TRUE(Eventually([&] { return PipeCounters().ServerPipes == 0; }));
}

TEST_F(KZUnixPipesTest, TellsWhatIsNotWrittenYet) {
  EXPECT_FALSE(FClient->Dequeue());
  const TFileDescriptor server = RawSocket(SocketPath(), true);
  ASSERT_TRUE(FClient->Connect(0));
  const std::string large(10'000'000, 'x');  // The writer is stuck in it.
  FClient->Write(large);
  FClient->WaitUntilWriteQueueEmpty(60);
  for (const char* each : {"one", "two"}) FClient->Write(each);
  FClient->WaitUntilWriteQueueEmpty(0);
  for (const char* each : {"one", "two"}) {
    const auto write = FClient->Dequeue();
    ASSERT_TRUE(write);
    EXPECT_EQ(*write->Buffer, Frame(each));
  }
  EXPECT_FALSE(FClient->Dequeue());
}

// The world sees a socket that every user may connect to and a lock that is held, and children
// inherit nothing. Connections wait in the queue while the main thread is busy.
TEST_F(KZUnixPipesTest, LeavesInTheWorldWhatItShall) {
  const mode_t before = ::umask(077);
  const TAtEnd restore([&] { ::umask(before); });
  const std::set<int> old = OpenDescriptors();
  FFolder.Write("PipeServer", "an old file");
  FServer->SetActive(true);
  ASSERT_TRUE(Eventually([&] { return FClient->Connect(0); }));
  std::vector<TFileDescriptor> peers;
  for (int i = 0; i < 100; ++i) {
    peers.push_back(RawSocket(SocketPath(), false));
    ASSERT_TRUE(peers.back()) << i;
  }
  ASSERT_TRUE(Eventually([&] { return FServer->ClientCount() == 101; }));
  for (const int descriptor : OpenDescriptors()) {
    EXPECT_TRUE(old.contains(descriptor) || ::fcntl(descriptor, F_GETFD) == FD_CLOEXEC);
  }
  EXPECT_EQ(std::filesystem::status(SocketPath()).permissions(), std::filesystem::perms::all);
  EXPECT_EQ(TNamedMutex::Create(SocketPath() + ".mutex").Error(), kErrorAlreadyExists);
  FServer->SetActive(false);
  EXPECT_EQ(TNamedMutex::Create(SocketPath() + ".mutex").Error(), 0);
  EXPECT_FALSE(FFolder.Has("PipeServer"));
}

TEST_F(KZUnixPipesTest, SaysWhyItCannotListenOrAcceptAndGoesOn) {
  const TErrorLogInFolder log;
  const auto says = [&](const std::string& text) {
    return Eventually(
        [&] { return log.Text().find(" KZUnixPipes: " + text) != std::string::npos; });
  };
  SetPipeDirectory(FFolder.Path("missing"));
  FServer->SetActive(true);
  EXPECT_TRUE(says("create mutex " + FFolder.Path("missing/PipeServer.mutex: No such file")));
  FServer->SetActive(false);
  SetPipeDirectory(FFolder.Path());
  std::filesystem::create_directories(SocketPath() + "/inside");
  FServer->SetActive(true);
  EXPECT_TRUE(says("listen on " + SocketPath() + ": Address already in use"));
  FServer->SetActive(false);
  EXPECT_TRUE(FFolder.Has("PipeServer/inside"));
  std::filesystem::remove_all(SocketPath());

  // A server of another name holds nothing up; without descriptors the clients wait.
  Serve();
  const TFileDescriptor peer(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const int next = ::dup(0);
  ::close(next);
  const rlimit none{.rlim_cur = static_cast<rlim_t>(next), .rlim_max = limit.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_FALSE(FClient->Connect(0));
  EXPECT_THROW(TPipeServer().SetActive(true), ESystemError);
  const std::string path = SocketPath();
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  std::strcpy(address.sun_path, path.c_str());
  EXPECT_EQ(::connect(peer.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  SystemClock().Sleep(milliseconds(100));
  ::setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_TRUE(says("accept on " + path + ": Too many open files"));
  EXPECT_TRUE(Eventually([&] { return FServer->ClientCount() == 1; }));
}

TEST_F(KZUnixPipesTest, NamesWhatIsLeftAtTheEnd) {
  const TErrorLogInFolder log;
  FClient.reset();
  FServer.reset();
  StopPipes();
  EXPECT_THAT(log.Text(), IsEmpty());
  const TPipeClient client;
  StopPipes();
  EXPECT_THAT(log.Text(), HasSubstr(" KZUnixPipes: ValidObjects still contains 1 pointers: "
                                    "PipeClient\n"));
  PipeCounters().ServerPipes = 1;
  StopPipes();
  PipeCounters().ServerPipes = 0;
  EXPECT_THAT(log.Text(), HasSubstr(" KZUnixPipes: Not all pipes closed at end of process.\n"));
}

// Connects and disconnects from a thread that is not the main one, as the watchdog does, while the
// server's side dies, messages arrive and handlers disconnect.
TEST_F(KZUnixPipesTest, SurvivesThousandsOfConnectsAndDisconnects) {
  const std::size_t before = OpenDescriptors().size();
  const std::int64_t misses = ValidObjects().Misses();
  Serve();
  constexpr int kConnects = 2000;
  std::atomic<int> connects = 0;
  int messages = 0;
  TKZEvent heard("heard");
  FClient->OnPipeMessage = [&](auto&, std::int64_t, std::string_view) {
    if (++messages % 3 == 0) FClient->Disconnect(TWait::No);
    heard.Signal();
  };
  FServer->OnPipeConnect = [&](auto&, std::int64_t pipe) { FServer->Write(pipe, "hello"); };
  TCrew ticker(1, [&](int) {
    std::mt19937 random(7);
    while (connects < kConnects) {
      if (!FClient->Connected() && FClient->Connect(0)) ++connects;
      FClient->Write("tick");
      // Every fourth connection may live for a while, and die by the server or by a handler.
      if (random() % 4 == 0) heard.WaitFor(milliseconds(20));
      FClient->Disconnect(random() % 8 == 0 ? TWait::Yes : TWait::No);
    }
  });
  std::mt19937 random(8);
  ASSERT_TRUE(Eventually([&] {
    if (random() % 100 == 0) {
      FServer->SetActive(false);
      FServer->SetActive(true);
    }
    return connects >= kConnects;
  }));
  ticker.Join();
  FClient->Disconnect(TWait::Yes);
  FServer->SetActive(false);
  EXPECT_TRUE(Eventually([&] {
    return PipeCounters().ClientPipes == 0 && PipeCounters().ServerPipes == 0 &&
           PipeCounters().ClientPipeThreads == 0 && PipeCounters().ServerPipeThreads == 0;
  }));
  EXPECT_LE(OpenDescriptors().size(), before);
  EXPECT_EQ(ValidObjects().Misses(), misses);
  EXPECT_GT(messages, 0);
}

TEST_F(KZUnixPipesTest, FreeingEndsEverythingInEveryState) {
  for (int round = 0; round < 60; ++round) {
    FServer = std::make_unique<TPipeServer>();
    Serve();
    auto client = MakeClient();
    ASSERT_TRUE(Eventually([&] { return client->Connect(0); }));
    if (round % 2 == 0) client->Write("x");
    if (round % 3 == 0) client->Disconnect(TWait::No);
    if (round % 5 == 0) FServer->SetActive(false);
    client.reset();
    EXPECT_EQ(PipeCounters().ClientPipeThreads, 0);
    // A client that the listener has accepted and that waits for the main thread.
    const std::size_t open = OpenDescriptors().size();
    const TFileDescriptor peer = RawSocket(SocketPath(), false);
    for (int i = 0; i < 100 && peer && OpenDescriptors().size() < open + 2; ++i) {
      SystemClock().Sleep(milliseconds(1));
    }
    FServer.reset();
    ASSERT_EQ(PipeCounters().ServerPipes, 0) << round;
    ASSERT_EQ(PipeCounters().ServerPipeThreads, 0) << round;
  }
  EXPECT_EQ(PipeCounters().ClientPipes, 0);
}

// Signals whose handler does not restart system calls interrupt them, and nothing is lost.
TEST_F(KZUnixPipesTest, LosesNothingToSignals) {
  struct sigaction interrupt {};
  interrupt.sa_handler = [](int) {};
  struct sigaction previous {};
  ::sigaction(SIGFPE, &interrupt, &previous);  // The threads block all but the fatal ones.
  const TAtEnd restore([&] {
    ::signal(SIGFPE, SIG_IGN);  // Drops what is pending.
    ::sigaction(SIGFPE, &previous, nullptr);
  });
  const TFileDescriptor peer = ServeAndConnectRaw();
  std::atomic<bool> enough = false;
  TCrew storm(1, [&](int) {
    while (!enough) {
      for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const pid_t id = std::stoi(task.path().filename());
        if (id != ::getpid() && id != ::gettid()) ::tgkill(::getpid(), id, SIGFPE);
      }
    }
  });
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(WriteAll(peer.Get(), Frame("x")), 0);
    ASSERT_TRUE(
        Eventually([&] { return FServerReceived.size() == static_cast<std::size_t>(i) + 1; }));
  }
  ASSERT_TRUE(FClient->Connect(0));
  EXPECT_TRUE(Eventually([&] { return FServer->ClientCount() == 2; }));
  enough = true;
  storm.Join();
  EXPECT_EQ(FDisconnects, 0);
}

}  // namespace
}  // namespace guardian
