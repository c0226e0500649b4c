// The figures of the whole program: the real executables, on the Guardian's real port.

#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "BenchedGuardian.h"
#include "Measure.h"
#include "Programs.h"
#include "support/Eventually.h"
#include "support/Program.h"

namespace guardian {
namespace {

using std::chrono::milliseconds;

// A failure of one benchmark leaves the other figures as they are.
template <void (*Benchmark)(benchmark::State&)>
void Guarded(benchmark::State& state) {
  try {
    Benchmark(state);
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
  }
}

// The minimal server, which is the baseline of a page.
class TBareServer {
 public:
  static constexpr std::uint16_t kPort = 8990;

  explicit TBareServer(const std::string& answer)
      : FServer({BARE_SERVER_EXECUTABLE, std::to_string(kPort), AnswerFile(answer)}) {}

  void WaitForAnswer(const std::string& answer) {
    if (!Eventually([&] { return FServer.Running() && RawAnswerIs(answer); })) {
      throw std::runtime_error("the minimal server does not give the answer");
    }
  }

  [[nodiscard]] pid_t Pid() const { return FServer.Pid(); }

 private:
  [[nodiscard]] std::string AnswerFile(const std::string& answer) const {
    FFolder.Write("answer", answer);
    return FFolder.Path("answer");
  }

  static bool RawAnswerIs(const std::string& answer) {
    try {
      return RawAnswer(kPort, "/") == answer;
    } catch (const std::runtime_error&) {
      return false;
    }
  }

  const TTempFolder FFolder;
  TProgram FServer;
};

struct TLoad {
  double Rate = 0;  // Answers a second.
  double P99Ms = 0;
};

// The number behind the word in what wrk printed, in milliseconds when it has a unit of time.
double NumberBehind(const std::string& text, const std::string& word) {
  const std::size_t at = text.find(word);
  if (at == std::string::npos) throw std::runtime_error("wrk printed: " + text);
  const std::string rest = text.substr(at + word.size());
  std::size_t digits = 0;
  const double number = std::stod(rest, &digits);
  const std::string unit = rest.substr(digits, 2);
  if (unit == "us") return number / 1e3;
  return unit.starts_with("s") ? number * 1e3 : number;
}

// Loads the server for one second with as many requests as it answers.
TLoad LoadFor1s(std::uint16_t port, const std::string& page, int connections) {
  const std::string output =
      OutputOf({"/usr/bin/wrk", "-t1", "-c" + std::to_string(connections), "-d1s", "--latency",
                "http://127.0.0.1:" + std::to_string(port) + "/" + page});
  if (output.find("Socket errors") != std::string::npos ||
      output.find("Non-2xx") != std::string::npos) {
    throw std::runtime_error("wrk printed: " + output);
  }
  return {NumberBehind(output, "Requests/sec:"), NumberBehind(output, " 99%")};
}

// A server under one load after the other.
class TLoadedServer {
 public:
  TLoadedServer(std::uint16_t port, pid_t pid, std::string page, int connections)
      : FPort(port), FPid(pid), FPage(std::move(page)), FConnections(connections) {}

  // The seconds that an answer takes, all connections together.
  double SecondsPerAnswer() {
    const double before = ProcessorSecondsOf(FPid);
    const TLoad load = LoadFor1s(FPort, FPage, FConnections);
    FP99.push_back(load.P99Ms);
    FProcessorMicroseconds.push_back((ProcessorSecondsOf(FPid) - before) / load.Rate * 1e6);
    return 1 / load.Rate;
  }

  [[nodiscard]] double P99Ms() const { return Median(FP99); }
  // Of the server alone, for one answer.
  [[nodiscard]] double ProcessorMicroseconds() const { return Median(FProcessorMicroseconds); }

 private:
  const std::uint16_t FPort;
  const pid_t FPid;
  const std::string FPage;
  const int FConnections;
  std::vector<double> FP99;
  std::vector<double> FProcessorMicroseconds;
};

void CompareLoads(benchmark::State& state, const TBenchedGuardian& guardian,
                  const std::string& page, int connections) {
  const std::string answer = RawAnswer(kGuardianPort, "/" + page);
  TBareServer bareServer(answer);
  bareServer.WaitForAnswer(answer);
  TLoadedServer ours(kGuardianPort, guardian.GuardianPid(), page, connections);
  TLoadedServer bare(TBareServer::kPort, bareServer.Pid(), page, connections);
  const TComparison seconds = Compare(
      state, [&] { return ours.SecondsPerAnswer(); }, [&] { return bare.SecondsPerAnswer(); });
  ReportRates(state, seconds);
  state.counters["p99_ms"] = ours.P99Ms();
  state.counters["bare_p99_ms"] = bare.P99Ms();
  state.counters["p99_ratio"] = ours.P99Ms() / bare.P99Ms();
  state.counters["processor_us"] = ours.ProcessorMicroseconds();
  state.counters["bare_processor_us"] = bare.ProcessorMicroseconds();
}

// The Guardian with a healthy daemon.
void StatusPage(benchmark::State& state) {
  TBenchedGuardian guardian(TGuardianKind::Product);
  guardian.StartDaemon();
  guardian.StartGuardian();
  guardian.WaitForAnswer();
  CompareLoads(state, guardian, "status.php", static_cast<int>(state.range(0)));
}
BENCHMARK(Guarded<StatusPage>)
    ->Name("StatusPage")
    ->Arg(1)
    ->Arg(16)
    ->Arg(64)
    ->UseManualTime()
    ->Iterations(Rounds(15));

// So long that a few hundred lines fill a log.
std::string LongFolders() { return "/" + std::string(200, 'a') + "/" + std::string(200, 'b'); }

void StartWithFullLogs(TBenchedGuardian& guardian) {
  guardian.StartDaemon();
  guardian.StartGuardian();
  guardian.WaitForHealthyRound();
  guardian.FillLogs();
}

void FullMainPage(benchmark::State& state) {
  constexpr int kConnections = 16;
  TBenchedGuardian guardian(TGuardianKind::Fast, LongFolders());
  StartWithFullLogs(guardian);
  CompareLoads(state, guardian, "", kConnections);
}
BENCHMARK(Guarded<FullMainPage>)->Name("FullMainPage")->UseManualTime()->Iterations(Rounds(5));

// Beside the main page with full logs; both are served by the same Guardian.
void OverviewPage(benchmark::State& state) {
  constexpr int kConnections = 16;
  TBenchedGuardian guardian(TGuardianKind::Fast, LongFolders());
  StartWithFullLogs(guardian);
  TLoadedServer overview(kGuardianPort, guardian.GuardianPid(), "overview.html", kConnections);
  TLoadedServer mainPage(kGuardianPort, guardian.GuardianPid(), "", kConnections);
  const TComparison seconds = Compare(
      state, [&] { return overview.SecondsPerAnswer(); },
      [&] { return mainPage.SecondsPerAnswer(); });
  ReportRates(state, seconds);
}
BENCHMARK(Guarded<OverviewPage>)->Name("OverviewPage")->UseManualTime()->Iterations(Rounds(5));

// Half of the connections send nothing, the others send their request byte by byte. A connection
// that the server closes is made again.
class TSlowClients {
 public:
  TSlowClients() {
    for (int& connection : FConnections) connection = TryConnect(kGuardianPort, kAddress);
    FThread = std::thread([this] { Drip(); });
  }
  ~TSlowClients() {
    FStop = true;
    FThread.join();
    for (const int connection : FConnections) ::close(connection);
  }
  TSlowClients(const TSlowClients&) = delete;
  TSlowClients& operator=(const TSlowClients&) = delete;

 private:
  // One of their own: the server remembers each connection that it has closed for a minute, and a
  // client that came from the same address and port before the server listens again waits for ms.
  static constexpr in_addr_t kAddress = INADDR_LOOPBACK + 1;
  static constexpr std::size_t kStalled = 200;
  static constexpr std::size_t kDripping = 200;

  // Each connection is looked at twice a second.
  void Drip() {
    constexpr milliseconds kPause{10};
    constexpr std::size_t kAtOnce = 8;
    std::size_t next = 0;
    while (!FStop) {
      for (std::size_t i = 0; i < kAtOnce; ++i) Serve(next++ % FConnections.size());
      std::this_thread::sleep_for(kPause);
    }
  }

  void Serve(std::size_t index) {
    char byte = 'G';
    int& connection = FConnections[index];
    const bool drips = index >= kStalled;
    const bool gone = (drips && ::send(connection, &byte, 1, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) ||
                      ::recv(connection, &byte, 1, MSG_DONTWAIT) == 0;
    if (!gone) return;
    ::close(connection);
    connection = TryConnect(kGuardianPort, kAddress);
  }

  std::vector<int> FConnections = std::vector<int>(kStalled + kDripping);
  std::atomic<bool> FStop = false;
  std::thread FThread;
};

// The time of the request alone, without curl's own start; the median of several.
double SecondsOfCurl() {
  const int requests = Rounds(15, 3);
  std::vector<double> seconds;
  for (int i = 0; i < requests; ++i) {
    seconds.push_back(std::stod(OutputOf({"/usr/bin/curl", "-sf", "-o", "/dev/null", "-w",
                                          "%{time_total}", "http://127.0.0.1:8900/status.php"})));
  }
  return Median(seconds);
}

void StatusPageBesideSlowClients(benchmark::State& state) {
  TBenchedGuardian guardian(TGuardianKind::Product);
  guardian.StartDaemon();
  guardian.StartGuardian();
  guardian.WaitForAnswer();
  const auto beside = [] {
    const TSlowClients clients;
    return SecondsOfCurl();
  };
  ReportTimes(state, Compare(state, beside, SecondsOfCurl));
}
BENCHMARK(Guarded<StatusPageBesideSlowClients>)
    ->Name("StatusPageBesideSlowClients")
    ->UseManualTime()
    ->Iterations(Rounds(7));

void StatusCommand(benchmark::State& state) {
  TBenchedGuardian guardian(TGuardianKind::Product);
  guardian.StartDaemon();
  guardian.StartGuardian();
  guardian.WaitForAnswer();
  const auto ours = [&] { return RunToEnd({guardian.GuardianPath(), "status"}).Seconds; };
  const auto bare = [] {
    return RunToEnd({"/usr/bin/curl", "-sf", "http://127.0.0.1:8900/status.php"}).Seconds;
  };
  ReportTimes(state, Compare(state, ours, bare));
}
BENCHMARK(Guarded<StatusCommand>)
    ->Name("StatusCommand")
    ->UseManualTime()
    ->Iterations(Rounds(101, 3));

// The seconds until the program that the start runs takes connections on the port.
double SecondsUntilConnected(std::uint16_t port, const std::function<void()>& start) {
  constexpr std::chrono::microseconds kPause{100};
  int connection = -1;
  const double seconds = Seconds([&] {
    start();
    for (int round = 0; round < 100'000 && connection < 0; ++round) {
      std::this_thread::sleep_for(kPause);
      connection = TryConnect(port);
    }
  });
  if (connection < 0) throw std::runtime_error("no connection on the port");
  ::close(connection);
  return seconds;
}

double SecondsOfGuardianStart(TBenchedGuardian& guardian) {
  const double seconds = SecondsUntilConnected(kGuardianPort, [&] { guardian.StartGuardian(); });
  if (Page("status.php").find("running") == std::string::npos) {
    throw std::runtime_error("somebody else answers");
  }
  guardian.StopGuardian();
  return seconds;
}

double SecondsOfBareStart() {
  std::optional<TBareServer> server;
  return SecondsUntilConnected(TBareServer::kPort, [&] { server.emplace("answer"); });
}

// Against the handshake's command and the start of the minimal server, one after the other. Of the
// Guardian's time beyond the handshake against the server's start, too.
void StartToAnswer(benchmark::State& state) {
  TBenchedGuardian guardian(TGuardianKind::Product);
  const std::string handshake = guardian.DaemonPath() + " /PATHS";
  std::vector<double> handshakes;
  std::vector<double> starts;
  const TComparison seconds = Compare(
      state, [&] { return SecondsOfGuardianStart(guardian); },
      [&] {
        handshakes.push_back(RunToEnd({"/bin/sh", "-c", handshake}).Seconds);
        starts.push_back(SecondsOfBareStart());
        return handshakes.back() + starts.back();
      });
  ReportTimes(state, seconds);
  const double beyond = seconds.Ours - Median(handshakes);
  state.counters["beyond_us"] = beyond * 1e6;
  state.counters["bare_start_us"] = Median(starts) * 1e6;
  state.counters["beyond_ratio"] = beyond / Median(starts);
}
BENCHMARK(Guarded<StartToAnswer>)->Name("StartToAnswer")->UseManualTime()->Iterations(Rounds(31));

// What sixty looks at the process list cost, the one thing that a watched hour cannot do without.
double SecondsOf60Listings() {
  const int runs = Rounds(60, 6);
  double seconds = 0;
  for (int i = 0; i < runs; ++i) {
    seconds += RunToEnd({"/bin/sh", "-c",
                         "ps -ef --columns 1000 | grep -e '[n]o such daemon' -e '[p]s -ef'"})
                   .ProcessorSeconds;
  }
  return seconds * 60 / runs;
}

// Lets so much of the watchdog's time pass while the main page is fetched twice a second.
void PlayFast(std::chrono::seconds watched) {
  const auto end = std::chrono::steady_clock::now() + watched / kFastFactor;
  while (std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(milliseconds(500));
    Page("");
  }
}

// What a process has used so far.
struct TUse {
  explicit TUse(pid_t pid) : Seconds(ProcessorSecondsOf(pid)), Switches(SwitchesOf(pid)) {}
  double Seconds;
  double Switches;
};

// The product itself in an hour, and the bare watcher beside it on the same daemon. Measured in
// real time, since in a fast hour only the ticks come faster, for twice the 70 seconds after which
// the product listens to the daemon again.
void OwnUseOfAnHour(benchmark::State& state) {
  const milliseconds window(Rounds(140'000, 3'000));  // Some records of the daemon at least.
  const double perHour = 3'600'000 / static_cast<double>(window.count());
  TBenchedGuardian guardian(TGuardianKind::Product);
  guardian.StartDaemon();
  guardian.StartGuardian();
  guardian.WaitForHealthyRound();
  const TProgram watcher({BARE_WATCHER_EXECUTABLE, guardian.MutexFolder()});
  std::this_thread::sleep_for(milliseconds(1500));  // Until both are past their first record.
  const TUse ours(guardian.GuardianPid());
  const TUse bare(watcher.Pid());
  std::this_thread::sleep_for(window);
  const TUse oursAfter(guardian.GuardianPid());
  const TUse bareAfter(watcher.Pid());
  state.counters["own_s"] = (oursAfter.Seconds - ours.Seconds) * perHour;
  state.counters["bare_s"] = (bareAfter.Seconds - bare.Seconds) * perHour;
  state.counters["own_ratio"] =
      (oursAfter.Seconds - ours.Seconds) / (bareAfter.Seconds - bare.Seconds);
  state.counters["switches"] = (oursAfter.Switches - ours.Switches) * perHour;
  state.counters["bare_switches"] = (bareAfter.Switches - bare.Switches) * perHour;
}

void WatchedHour(benchmark::State& state) {
  const std::chrono::seconds hour(Rounds(3600, 60));
  for ([[maybe_unused]] auto _ : state) {
    OwnUseOfAnHour(state);
    TBenchedGuardian guardian(TGuardianKind::Fast, LongFolders());
    StartWithFullLogs(guardian);
    const pid_t pid = guardian.GuardianPid();
    const double before = ChildSecondsOf(pid);
    PlayFast(hour / 10);
    const TMemory early = MemoryOf(pid);
    PlayFast(hour - hour / 10);
    const TMemory late = MemoryOf(pid);
    const double children =
        (ChildSecondsOf(pid) - before) * 3600 / static_cast<double>(hour.count());
    const double listings = SecondsOf60Listings();
    state.SetIterationTime(static_cast<double>(hour.count()));
    state.counters["children_s"] = children;
    state.counters["ps_s"] = listings;
    state.counters["children_ratio"] = children / listings;
    state.counters["resident_mb"] = late.ResidentMb;
    state.counters["early_mb"] = early.ResidentMb;
    state.counters["proportional_mb"] = late.ProportionalMb;
    state.counters["private_dirty_mb"] = late.PrivateDirtyMb;
    state.counters["growth"] = late.ResidentMb / early.ResidentMb;
    state.SetLabel("time " + std::to_string(kFastFactor) + "-fold");
  }
}
BENCHMARK(Guarded<WatchedHour>)->Name("WatchedHour")->UseManualTime()->Iterations(1);

}  // namespace
}  // namespace guardian

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
