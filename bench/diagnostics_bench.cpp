#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "CountedHeap.h"
#include "Measure.h"
#include "common/Clock.h"
#include "diagnostics/KZCheckpoints.h"
#include "diagnostics/KZLogFile.h"
#include "diagnostics/checkpoints/CheckpointRecord.h"
#include "support/TempFolder.h"

namespace guardian {
namespace {

constexpr std::string_view kText = "PipeRead:Sock#123456";
static_assert(kText.size() == 20);

// The switch is on, and histories are kept, for as long as it lives.
class THistorySwitch {
 public:
  THistorySwitch() { KZCP::Switches().History = true; }
  ~THistorySwitch() { KZCP::Switches().History = false; }
  THistorySwitch(const THistorySwitch&) = delete;
  THistorySwitch& operator=(const THistorySwitch&) = delete;
};

// In a thread that ends afterwards, and with it what its checkpoints left behind.
void InThread(const std::function<void()>& work) { std::thread(work).join(); }

void PassBareCheckpoints(int count) {
  thread_local std::array<char, 256> current;
  for (int i = 0; i < count; ++i) {
    benchmark::DoNotOptimize(SystemTickCount());
    std::memcpy(current.data(), kText.data(), kText.size());
    benchmark::DoNotOptimize(current);
    benchmark::ClobberMemory();
  }
}

void PassCheckpoints(int count) {
  for (int i = 0; i < count; ++i) KZCP::Checkpoint(kText);
}

void CompareCheckpoints(benchmark::State& state) {
  const int calls = Rounds(1'000'000, 10'000);
  std::int64_t allocations = 0;
  const auto ours = [&] {
    const std::int64_t before = AllocationsOfThread();
    const double seconds = ProcessorSeconds([&] { PassCheckpoints(calls); });
    allocations += AllocationsOfThread() - before;
    return seconds / calls;
  };
  const auto bare = [&] { return ProcessorSeconds([&] { PassBareCheckpoints(calls); }) / calls; };
  InThread([&] {
    PassCheckpoints(1);
    const std::int64_t before = AllocationsOfThread();
    ReportTimes(state, Compare(state, ours, bare));
    if (AllocationsOfThread() == before)
      state.SkipWithError("the count of allocations does not work");
  });
  state.counters["allocations"] = static_cast<double>(allocations);
}

void CheckpointWithAllOff(benchmark::State& state) { CompareCheckpoints(state); }
BENCHMARK(CheckpointWithAllOff)->UseManualTime()->Iterations(Rounds(15));

void CheckpointWithHistory(benchmark::State& state) {
  const THistorySwitch history;
  CompareCheckpoints(state);
}
BENCHMARK(CheckpointWithHistory)->UseManualTime()->Iterations(Rounds(15));

// Writes thread reports into a file, one after the other, while it lives.
class TReporting {
 public:
  ~TReporting() {
    FStop = true;
    FThread.join();
  }
  TReporting() = default;
  TReporting(const TReporting&) = delete;
  TReporting& operator=(const TReporting&) = delete;

  [[nodiscard]] int Reports() const { return FReports; }

 private:
  void Run() {
    while (!FStop) {
      FFolder.Write("report", KZCP::ThreadReport(KZCP::TReportHeader::With));
      ++FReports;
    }
  }

  const TTempFolder FFolder;
  std::atomic<bool> FStop = false;
  std::atomic<int> FReports = 0;
  std::thread FThread{[this] { Run(); }};
};

// Eight threads pass checkpoints; the seconds of processor time that a checkpoint takes them. Not
// of wall time: where there are fewer processors than threads, a ninth thread takes its share of
// them whatever it does.
double SecondsPerCheckpoint() {
  constexpr int kThreads = 8;
  const int calls = Rounds(1'000'000, 10'000);
  std::array<double, kThreads> seconds{};
  std::vector<std::thread> threads;
  std::latch ready(kThreads);
  for (double& used : seconds) {
    threads.emplace_back([&] {
      PassCheckpoints(1);
      ready.arrive_and_wait();
      used = ProcessorSeconds([&] { PassCheckpoints(calls); });
    });
  }
  for (std::thread& thread : threads) thread.join();
  double sum = 0;
  for (const double used : seconds) sum += used;
  return sum / kThreads / calls;
}

void CheckpointsUnderReports(benchmark::State& state) {
  int fewestReports = 1'000'000;
  const TComparison seconds = Compare(
      state,
      [&] {
        const TReporting reporting;
        const double result = SecondsPerCheckpoint();
        fewestReports = std::min(fewestReports, reporting.Reports());
        return result;
      },
      SecondsPerCheckpoint);
  if (fewestReports < 2) state.SkipWithError("no reports were written meanwhile");
  ReportRates(state, seconds);
  state.counters["fewest_reports"] = fewestReports;
}
BENCHMARK(CheckpointsUnderReports)->UseManualTime()->Iterations(Rounds(11));

std::int64_t TimesAsleep() {
  rusage usage{};
  ::getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nvcsw;
}

// Passes checkpoints until told to stop and counts those that waited, that is, in which the thread
// gave the processor up by itself. One that is long because the processor was taken away has waited
// for nobody.
class TCheckpointing {
 public:
  void Run(const std::atomic<bool>& stop) {
    constexpr double kSuspiciousMicroseconds = 20;
    std::int64_t asleep = TimesAsleep();
    while (!stop) {
      const auto start = std::chrono::steady_clock::now();
      KZCP::Checkpoint(kText);
      const double took = Microseconds(start, std::chrono::steady_clock::now());
      FLongestCall = std::max(FLongestCall, took);
      if (took < kSuspiciousMicroseconds) continue;
      const std::int64_t before = std::exchange(asleep, TimesAsleep());
      if (asleep != before) ++FWaits;
    }
  }

  [[nodiscard]] int Waits() const { return FWaits; }
  [[nodiscard]] double LongestCall() const { return FLongestCall; }  // Microseconds.

 private:
  int FWaits = 0;
  double FLongestCall = 0;
};

// One thread goes on while the report is made, the others have come to rest.
class TFullHistories {
 public:
  TFullHistories() {
    for (int i = 0; i < TCheckpointHistory::kMaxOwners; ++i) {
      FThreads.emplace_back([this, i] { Run(i); });
    }
    FFull.wait();
  }
  ~TFullHistories() { End(); }
  TFullHistories(const TFullHistories&) = delete;
  TFullHistories& operator=(const TFullHistories&) = delete;

  void End() {
    FStop = true;
    FStop.notify_all();
    for (std::thread& thread : FThreads) thread.join();
    FThreads.clear();
  }

  // Of the one that goes on; after End.
  [[nodiscard]] const TCheckpointing& GoingOn() const { return FGoingOn; }

 private:
  void Run(int number) {
    PassCheckpoints(TCheckpointHistory::kEntries + 1);
    FFull.count_down();
    if (number == 0) {
      FGoingOn.Run(FStop);
    } else {
      FStop.wait(false);
    }
  }

  std::latch FFull{TCheckpointHistory::kMaxOwners};
  std::atomic<bool> FStop = false;
  TCheckpointing FGoingOn;
  std::vector<std::thread> FThreads;
};

// As many entries as the report shows, each a text of that length and a number, in one text.
std::size_t PrintBareEntries() {
  std::string text;
  std::array<char, 16> number;
  for (int i = 0; i < TCheckpointHistory::kEntries * TCheckpointHistory::kMaxOwners; ++i) {
    const auto end = std::to_chars(number.begin(), number.end(), i % 100).ptr;
    text.append(number.begin(), end).append(kText).append("   ");
  }
  return text.size();
}

void ThreadReportOfFullHistories(benchmark::State& state) {
  const THistorySwitch history;
  TFullHistories threads;
  std::size_t bytes = 0;
  const TComparison seconds = Compare(
      state,
      [&] {
        return Seconds([&] { bytes = KZCP::ThreadReport(KZCP::TReportHeader::With).size(); });
      },
      [&] { return Seconds([&] { benchmark::DoNotOptimize(PrintBareEntries()); }); });
  threads.End();
  constexpr std::size_t kFewestBytesOfEntry = 23;
  if (bytes < kFewestBytesOfEntry * TCheckpointHistory::kEntries * TCheckpointHistory::kMaxOwners) {
    state.SkipWithError("the report does not show all histories");
  }
  state.counters["ms"] = seconds.Ours * 1e3;
  state.counters["bare_ms"] = seconds.Bare * 1e3;
  state.counters["ratio"] = seconds.OursPerBare;
  state.counters["waits"] = threads.GoingOn().Waits();
  state.counters["longest_call_us"] = threads.GoingOn().LongestCall();
  state.counters["report_mb"] = static_cast<double>(bytes) / 1e6;
}
BENCHMARK(ThreadReportOfFullHistories)->UseManualTime()->Iterations(Rounds(15));

void AppendBare(const std::string& name, const std::string& line) {
  const int file = ::open(name.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (file < 0 || ::write(file, line.data(), line.size()) < 0) std::abort();
  ::close(file);
}

void LogLine(benchmark::State& state) {
  const int lines = Rounds(2'000, 100);
  const std::string text = "Status: Mutex=Y Service=Y Pipe=Y Pulse: 1234567890";
  const std::string line = DateTimeToStr(SystemClock().Now()) + ": " + text + "\n";
  const TTempFolder folder;
  const std::string bareName = folder.Path("bare.log");
  TKZLogFile log(folder.Path("ours.log"));
  CompareRates(
      state, lines,
      [&] {
        for (int i = 0; i < lines; ++i) log.Write(text);
      },
      [&] {
        for (int i = 0; i < lines; ++i) AppendBare(bareName, line);
      });
  if (folder.Read("ours.log").size() != folder.Read("bare.log").size()) {
    state.SkipWithError("the two logs differ in length");
  }
}
BENCHMARK(LogLine)->UseManualTime()->Iterations(Rounds(41));

}  // namespace
}  // namespace guardian
