#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

#include "Measure.h"
#include "common/MainThread.h"
#include "diagnostics/KZCheckpoints.h"
#include "ipc/KZCustomApplication.h"
#include "ipc/KZMessages.h"
#include "ipc/KZUnixPipes.h"
#include "ipc/PipeFrame.h"
#include "ipc/SyncCommTypes.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;
using TInstant = std::chrono::steady_clock::time_point;

void RunMainThreadUntil(const std::function<bool()>& happened) {
  while (!happened()) CheckSynchronize(milliseconds(100));
}

class TCounter final : public TKZMessageReceiverClass {
 public:
  void WndMethod(TKZMessage& /*message*/) override { ++Count; }

  int Count = 0;
};

class TBareQueue {
 public:
  void Put(int value) {
    {
      const std::lock_guard lock(FLock);
      FValues.push_back(value);
    }
    FChanged.notify_one();
  }
  int Take() {
    std::unique_lock lock(FLock);
    FChanged.wait(lock, [this] { return !FValues.empty(); });
    const int value = FValues.front();
    FValues.pop_front();
    return value;
  }

 private:
  std::mutex FLock;
  std::condition_variable FChanged;
  std::deque<int> FValues;
};

void PostedMessages(benchmark::State& state) {
  const int messages = Rounds(50'000, 1'000);
  CompareRates(
      state, messages,
      [=] {
        TCounter counter;
        std::thread poster([&] {
          for (int i = 0; i < messages; ++i) PostMessage(counter, 1124, i, 0, 0);
        });
        RunMainThreadUntil([&] { return counter.Count == messages; });
        poster.join();
      },
      [=] {
        TBareQueue queue;
        std::thread poster([&] {
          for (int i = 0; i < messages; ++i) queue.Put(i);
        });
        for (int i = 0; i < messages; ++i) benchmark::DoNotOptimize(queue.Take());
        poster.join();
      });
}
// For some seconds, since other work on one processor lets both threads run on the other in turns:
// then nothing waits for a lock, which is more to the bare queue's advantage than to ours.
BENCHMARK(PostedMessages)->UseManualTime()->Iterations(Rounds(401))->Unit(benchmark::kMillisecond);

// From what another thread does to its effect in this one. Both are asleep before, and so is
// whoever hands it on, as in the daemon.
double SecondsUntil(const std::function<void()>& effect, const std::function<void()>& cause) {
  TInstant causedAt;
  std::thread other([&] {
    std::this_thread::sleep_for(milliseconds(1));
    causedAt = std::chrono::steady_clock::now();
    cause();
  });
  effect();
  const TInstant happenedAt = std::chrono::steady_clock::now();
  other.join();
  return Microseconds(causedAt, happenedAt) / 1e6;
}

// From thread to thread by a futex.
double SecondsOfBareHandOver() {
  std::atomic<bool> handedOver = false;
  return SecondsUntil([&] { handedOver.wait(false); },
                      [&] {
                        handedOver = true;
                        handedOver.notify_one();
                      });
}

// From another thread's PostMessage to WndMethod, the queue being empty each time.
void PostedMessageLatency(benchmark::State& state) {
  TCounter counter;
  const auto ours = [&] {
    const int before = counter.Count;
    return SecondsUntil([&] { RunMainThreadUntil([&] { return counter.Count > before; }); },
                        [&] { PostMessage(counter, 1124, 0, 0, 0); });
  };
  ReportTimes(state, Compare(state, ours, SecondsOfBareHandOver));
}
BENCHMARK(PostedMessageLatency)
    ->UseManualTime()
    ->Iterations(Rounds(1000, 20))
    ->Unit(benchmark::kMicrosecond);

// A server and a client of this process, connected.
class TPipe {
 public:
  TPipe() {
    std::string folder = (std::filesystem::temp_directory_path() / "kzb-XXXXXX").string();
    if (::mkdtemp(folder.data()) == nullptr) std::abort();
    FFolder = folder;
    SetPipeDirectory(FFolder);
    FServer.OnPipeConnect = [this](auto&, std::int64_t pipe) { FPipe = pipe; };
    FServer.SetActive(true);
    RunMainThreadUntil([&] { return FClient.Connect(0) && FPipe != 0; });
    FClient.OnPipeMessage = [this](auto&, std::int64_t, std::string_view) {
      ++Received;
      if (OnReceived) OnReceived();
    };
  }
  ~TPipe() {
    FServer.SetActive(false);
    std::error_code ignored;
    std::filesystem::remove_all(FFolder, ignored);
  }
  TPipe(const TPipe&) = delete;
  TPipe& operator=(const TPipe&) = delete;

  void Send(std::string_view payload) { FServer.Write(FPipe, payload); }

  int Received = 0;
  std::function<void()> OnReceived;

 private:
  std::string FFolder;
  std::int64_t FPipe = 0;
  TPipeServer FServer;
  TPipeClient FClient;
};

void SendBare(int socket, const std::string& frame, int count) {
  for (int i = 0; i < count; ++i) {
    if (::send(socket, frame.data(), frame.size(), MSG_NOSIGNAL) < 0) std::abort();
  }
}

void ReceiveBare(int socket, std::size_t bytes) {
  std::array<char, 4096> buffer;
  while (bytes > 0) {
    const ssize_t got = ::read(socket, buffer.data(), buffer.size());
    if (got <= 0) std::abort();
    bytes -= static_cast<std::size_t>(got);
  }
}

// Whole status records, from the server's Write to OnPipeMessage in the main thread, against a
// loop that sends as many bytes over a socket pair and reads them into a buffer of the same size.
void PipeRecords(benchmark::State& state) {
  const int records = Rounds(5'000, 2'000);
  constexpr int kBurst = 100;
  constexpr int kBursts = 10;
  TPipe pipe;
  const std::string record(kSyncCommRecordBytes, 'r');
  std::string frame;
  AppendFrame(frame, record);
  int sockets[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, sockets) != 0) std::abort();
  CompareRates(
      state, records,
      [&] {
        const int before = pipe.Received;
        // As a sender does that minds its queue: no more than some bursts are on their way.
        std::counting_semaphore<> bursts(kBursts);
        pipe.OnReceived = [&] {
          if (pipe.Received % kBurst == 0) bursts.release();
        };
        std::thread sender([&] {
          for (int i = 0; i < records; ++i) {
            if (i % kBurst == 0) bursts.acquire();
            pipe.Send(record);
          }
        });
        RunMainThreadUntil([&] { return pipe.Received == before + records; });
        sender.join();
      },
      [&] {
        std::thread sender([&] { SendBare(sockets[0], frame, records); });
        ReceiveBare(sockets[1], frame.size() * static_cast<std::size_t>(records));
        sender.join();
      });
  ::close(sockets[0]);
  ::close(sockets[1]);
}
BENCHMARK(PipeRecords)->UseManualTime()->Iterations(Rounds(81))->Unit(benchmark::kMillisecond);

// One record's way, from Write to OnPipeMessage.
void PipeRecordLatency(benchmark::State& state) {
  TPipe pipe;
  const std::string record(kSyncCommRecordBytes, 'r');
  const auto ours = [&] {
    const int before = pipe.Received;
    return SecondsUntil([&] { RunMainThreadUntil([&] { return pipe.Received > before; }); },
                        [&] { pipe.Send(record); });
  };
  ReportTimes(state, Compare(state, ours, SecondsOfBareHandOver));
}
BENCHMARK(PipeRecordLatency)
    ->UseManualTime()
    ->Iterations(Rounds(1000, 20))
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace guardian

int main(int argc, char** argv) {
  guardian::BindMainThread();
  guardian::TKZCustomApplication application;
  guardian::KZCP::Init();
  guardian::StartMessages();
  guardian::StartPipes();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  guardian::StopPipes();
  guardian::StopMessages();
  guardian::KZCP::Fini();
}
