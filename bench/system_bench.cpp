// The figures of the whole program: the real executables, on the Guardian's real port.

#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
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
      : FServer({BARE_SERVER_EXECUTABLE, std::to_string(kPort), AnswerFile(answer)}) {
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
  const TBareServer bareServer(RawAnswer(kGuardianPort, "/" + page));
  TLoadedServer ours(kGuardianPort, guardian.GuardianPid(), page, connections);
  TLoadedServer bare(TBareServer::kPort, bareServer.Pid(), page, connections);
  const TComparison seconds = Compare(
      state, [&] { return ours.SecondsPerAnswer(); }, [&] { return bare.SecondsPerAnswer(); });
  state.counters["rate"] = 1 / seconds.Ours;
  state.counters["bare_rate"] = 1 / seconds.Bare;
  state.counters["ratio"] = 1 / seconds.OursPerBare;
  state.counters["p99_ms"] = ours.P99Ms();
  state.counters["bare_p99_ms"] = bare.P99Ms();
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
    ->Iterations(Rounds(9));

// So long that a few hundred lines fill a log.
std::string LongFolders() { return "/" + std::string(200, 'a') + "/" + std::string(200, 'b'); }

void FullMainPage(benchmark::State& state) {
  constexpr int kConnections = 16;
  TBenchedGuardian guardian(TGuardianKind::Fast, LongFolders());
  guardian.StartDaemon();
  guardian.StartGuardian();
  guardian.WaitForHealthyRound();
  guardian.FillLogs();
  CompareLoads(state, guardian, "", kConnections);
}
BENCHMARK(Guarded<FullMainPage>)->Name("FullMainPage")->UseManualTime()->Iterations(Rounds(5));

// Beside the main page with full logs; both are served by the same Guardian.
void OverviewPage(benchmark::State& state) {
  constexpr int kConnections = 16;
  TBenchedGuardian guardian(TGuardianKind::Fast, LongFolders());
  guardian.StartDaemon();
  guardian.StartGuardian();
  guardian.WaitForHealthyRound();
  guardian.FillLogs();
  TLoadedServer overview(kGuardianPort, guardian.GuardianPid(), "overview.html", kConnections);
  TLoadedServer mainPage(kGuardianPort, guardian.GuardianPid(), "", kConnections);
  const TComparison seconds = Compare(
      state, [&] { return overview.SecondsPerAnswer(); },
      [&] { return mainPage.SecondsPerAnswer(); });
  state.counters["rate"] = 1 / seconds.Ours;
  state.counters["bare_rate"] = 1 / seconds.Bare;
  state.counters["ratio"] = 1 / seconds.OursPerBare;
}
BENCHMARK(Guarded<OverviewPage>)->Name("OverviewPage")->UseManualTime()->Iterations(Rounds(5));

// Half of the connections send nothing, the others send their request byte by byte. A connection
// that the server closes is made again.
class TSlowClients {
 public:
  TSlowClients() {
    for (int& connection : FConnections) connection = TryConnect(kGuardianPort);
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
    connection = TryConnect(kGuardianPort);
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

double SecondsUntilAnswer(TBenchedGuardian& guardian) {
  constexpr std::chrono::microseconds kPause{200};
  int connection = -1;
  const double seconds = Seconds([&] {
    guardian.StartGuardian();
    for (int round = 0; round < 50'000 && connection < 0; ++round) {
      std::this_thread::sleep_for(kPause);
      connection = TryConnect(kGuardianPort);
    }
  });
  if (connection < 0) throw std::runtime_error("the Guardian does not answer");
  ::close(connection);
  if (Page("status.php").find("running") == std::string::npos) {
    throw std::runtime_error("somebody else answers");
  }
  guardian.StopGuardian();
  return seconds;
}

void StartToAnswer(benchmark::State& state) {
  TBenchedGuardian guardian(TGuardianKind::Product);
  const std::string handshake = guardian.DaemonPath() + " /PATHS";
  const TComparison seconds = Compare(
      state, [&] { return SecondsUntilAnswer(guardian); },
      [&] {
        return RunToEnd({"/bin/sh", "-c", handshake}).Seconds;
      });
  state.counters["ms"] = seconds.Ours * 1e3;
  state.counters["bare_ms"] = seconds.Bare * 1e3;
  state.counters["over_ms"] = (seconds.Ours - seconds.Bare) * 1e3;
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

// The processor time of the product itself in a minute, in which it reads the process list once. It
// is measured in real time, since in a fast hour only the ticks come faster.
double ProcessorSecondsOfAMinute() {
  const milliseconds window(Rounds(60'000, 500));
  TBenchedGuardian guardian(TGuardianKind::Product);
  guardian.StartDaemon();
  guardian.StartGuardian();
  guardian.WaitForHealthyRound();
  const double before = ProcessorSecondsOf(guardian.GuardianPid());
  std::this_thread::sleep_for(window);
  return (ProcessorSecondsOf(guardian.GuardianPid()) - before) * 60'000 /
         static_cast<double>(window.count());
}

void WatchedHour(benchmark::State& state) {
  const std::chrono::seconds hour(Rounds(3600, 60));
  for ([[maybe_unused]] auto _ : state) {
    const double own = ProcessorSecondsOfAMinute() * 60;
    TBenchedGuardian guardian(TGuardianKind::Fast, LongFolders());
    guardian.StartDaemon();
    guardian.StartGuardian();
    guardian.WaitForHealthyRound();
    guardian.FillLogs();
    const pid_t pid = guardian.GuardianPid();
    const double before = ChildSecondsOf(pid);
    PlayFast(hour / 10);
    const TMemory early = MemoryOf(pid);
    PlayFast(hour - hour / 10);
    const TMemory late = MemoryOf(pid);
    const double children = ChildSecondsOf(pid) - before;
    state.SetIterationTime(static_cast<double>(hour.count()));
    state.counters["processor_s"] = own + children;
    state.counters["own_s"] = own;
    state.counters["children_s"] = children;
    state.counters["ps_s"] = SecondsOf60Listings();
    state.counters["resident_mb"] = late.ResidentMb;
    state.counters["early_mb"] = early.ResidentMb;
    state.counters["proportional_mb"] = late.ProportionalMb;
    state.counters["growth"] = late.ResidentMb / early.ResidentMb;
    state.SetLabel("time " + std::to_string(kFastFactor) + "-fold");
  }
}
BENCHMARK(Guarded<WatchedHour>)->Name("WatchedHour")->UseManualTime()->Iterations(1);

double SecondsUntilBack(const TBenchedGuardian& guardian) {
  const pid_t killed = guardian.DaemonPid();
  const auto isBack = [&] {
    const pid_t pid = guardian.DaemonPid();
    return pid != 0 && pid != killed;
  };
  return Seconds([&] {
    ::kill(killed, SIGKILL);
    if (!Eventually(isBack)) throw std::runtime_error("the daemon does not come back");
  });
}

// Every restart begins with a tick, so each pause before a kill is the time since a tick. The
// daemon's own start is measured as the Guardian starts it, by the shell.
void RestartAfterKill(benchmark::State& state) {
  constexpr milliseconds kStep{1000};
  TBenchedGuardian guardian(TGuardianKind::Product);
  std::vector<double> starts;
  for (int i = 0; i < Rounds(5); ++i) {
    starts.push_back(RunToEnd({"/bin/sh", "-c", guardian.DaemonPath() + " start"}).Seconds);
    guardian.StopDaemon();
  }
  guardian.StartDaemon();
  guardian.StartGuardian();
  guardian.WaitForHealthyRound();
  std::vector<double> times;
  for ([[maybe_unused]] auto _ : state) {
    std::this_thread::sleep_for(kStep * ((times.size() + 1) % 10));
    times.push_back(SecondsUntilBack(guardian));
    state.SetIterationTime(times.back());
  }
  const double longest = *std::max_element(times.begin(), times.end());
  state.counters["start_s"] = Median(starts);
  state.counters["all_s"] = longest;
  state.counters["longest_s"] = longest - Median(starts);
}
BENCHMARK(Guarded<RestartAfterKill>)
    ->Name("RestartAfterKill")
    ->UseManualTime()
    ->Iterations(Rounds(10));

}  // namespace
}  // namespace guardian

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
