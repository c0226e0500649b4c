#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include "Measure.h"
#include "common/Clock.h"
#include "common/Settings.h"
#include "guardian/WatchdogDecision.h"
#include "guardian/process.h"
#include "support/Eventually.h"
#include "support/Joined.h"
#include "support/TempFolder.h"
#include "webstatus/ActivityLog.h"

namespace guardian {
namespace {

// A healthy daemon's round, also the text of its status line, and of every other round also that of
// a fresh pulse. The baseline prints the two texts and does nothing else.
void DecisionOfTick(benchmark::State& state) {
  const int decisions = Rounds(20'000, 100);
  TObservation seen{.Now = SystemClock().SteadyNow(),
                    .WallNow = SystemClock().Now(),
                    .MutexOK = true,
                    .PipeOK = true,
                    .ServiceOK = true,
                    .MutexPathKnown = true,
                    .Pulse = 1,
                    .Pid = "12345"};
  TWatchdogState watchdog{.LastPulseAt = seen.Now};
  const auto ours = [&] {
    for (int i = 0; i < decisions; ++i) {
      seen.Now += 10 * kSecond;
      seen.Pulse += i % 2;
      benchmark::DoNotOptimize(DecideRound(seen, watchdog));
    }
  };
  const auto bare = [&] {
    char text[200];
    for (int i = 0; i < decisions; ++i) {
      std::snprintf(text, sizeof(text), "Status: Mutex=%c Service=%c Pipe=%c Pulse: %d PID: %s",
                    'Y', 'Y', 'Y', i, seen.Pid.c_str());
      benchmark::DoNotOptimize(text);
      if (i % 2 == 0) continue;
      std::snprintf(text, sizeof(text), "%s%04d-%02d-%02d %02d:%02d:%02d",
                    "Pulse change detected, FLastPulseAt now:", 2026, 11, 21, 6, 13, i % 60);
      benchmark::DoNotOptimize(text);
    }
  };
  CompareRates(state, decisions, ours, bare, &ProcessorSeconds);
}
BENCHMARK(DecisionOfTick)->UseManualTime()->Iterations(Rounds(15));

// A line behind a detailed log that is as long as it may become, against one copy of that log,
// which its readers keep.
void AppendToFullLog(benchmark::State& state) {
  const std::string line = "Pulse change detected, FLastPulseAt now:2026-11-21 06:13:45";
  TActivityLog log([](std::string_view, TSystemLogKind) {});
  const auto isFull = [&] {
    return Joined(log.DetailedLog()).size() + 2 * line.size() >= kActivityLogLimit;
  };
  while (!isFull()) log.AddDetailEntry(line);
  const std::string full = Joined(log.DetailedLog());
  const auto copy = [&] { benchmark::DoNotOptimize(MakeText(full)); };
  ReportTimes(state, Compare(
                         state, [&] { return ProcessorSeconds([&] { log.AddDetailEntry(line); }); },
                         [&] { return ProcessorSeconds(copy); }));
  if (!isFull()) state.SkipWithError("the log is not full");
}
BENCHMARK(AppendToFullLog)->UseManualTime()->Iterations(Rounds(2'000, 20));

// Standard output goes nowhere for as long as it lives.
class TSilence {
 public:
  TSilence() {
    std::fflush(stdout);
    const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (FStdout < 0 || null < 0 || ::dup2(null, STDOUT_FILENO) < 0) std::abort();
    ::close(null);
  }
  ~TSilence() {
    ::dup2(FStdout, STDOUT_FILENO);
    ::close(FStdout);
  }
  TSilence(const TSilence&) = delete;
  TSilence& operator=(const TSilence&) = delete;

 private:
  const int FStdout = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
};

// The cheapest of lines, so that what the runner adds shows most. system() is given the line as the
// runner gives it to the shell, which is with its redirection into memory.
void ShellCommand(benchmark::State& state) {
  const std::string line = "echo running";
  const TTempFolder folder("/dev/shm");
  ::unsetenv("TMPDIR");  // The runner writes into memory when the temp directory is "/tmp".
  const std::string redirected = line + " >\"" + folder.Path("output.txt") + "\" 2>&1";
  const TSilence silence;
  std::string output;
  int exitCode = -1;
  const auto ours = [&] {
    RunShellCmdWithOutput(output, line, 10, true, "", exitCode);
    if (exitCode != 0 || output != "running\n") std::abort();
  };
  const auto bare = [&] {
    // NOLINTNEXTLINE(concurrency-mt-unsafe,cert-env33-c): the baseline of the runner.
    if (std::system(redirected.c_str()) != 0) std::abort();
  };
  ReportTimes(state, Compare(
                         state, [&] { return Seconds(ours); }, [&] { return Seconds(bare); }));
}
BENCHMARK(ShellCommand)->UseManualTime()->Iterations(Rounds(601, 3));

// Descriptors up to this one may be open, as far as the machine allows it. The limit that is
// reached.
double RaiseDescriptorLimit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  constexpr rlim_t kWanted = 1'048'576;
  const rlimit wanted{kWanted, std::max(limit.rlim_max, kWanted)};
  if (::setrlimit(RLIMIT_NOFILE, &wanted) != 0) {
    limit.rlim_cur = std::min(limit.rlim_max, kWanted);
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
  ::getrlimit(RLIMIT_NOFILE, &limit);
  return static_cast<double>(limit.rlim_cur);
}

// What the daemon tells the benchmark, whose other ways to it are closed by then.
struct TDaemonReport {
  std::atomic<double> Microseconds = 0;
  std::atomic<double> Limit = 0;
  std::atomic<bool> Written = false;
};

// What a daemon cannot do without, each call made once.
void BecomeBareDaemon() {
  for (int i = 0; i < 2; ++i) {
    if (::fork() > 0) ::_exit(0);
    if (i == 0) ::setsid();
  }
  ::umask(0);
  if (::chdir("/") != 0) std::abort();
  ::close_range(0, ~0U, 0);
  for (int i = 0; i < 3; ++i) static_cast<void>(::open("/dev/null", O_RDWR));
}

// With some descriptors open, the highest of all among them.
[[noreturn]] void MeasureBecomingDaemon(void (*becomeDaemon)(), TDaemonReport& report) {
  constexpr int kOpen = 200;
  report.Limit = RaiseDescriptorLimit();
  for (int i = 0; i < kOpen; ++i) static_cast<void>(::open("/dev/null", O_RDONLY));
  ::dup2(STDERR_FILENO, static_cast<int>(report.Limit.load()) - 1);
  const auto start = std::chrono::steady_clock::now();
  becomeDaemon();
  report.Microseconds = Microseconds(start, std::chrono::steady_clock::now());
  report.Written = ::getppid() != 0 && ::getsid(0) != ::getpid();
  ::_exit(0);
}

void BecomingDaemon(benchmark::State& state) {
  void* const shared = ::mmap(nullptr, sizeof(TDaemonReport), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) return state.SkipWithError("no shared memory");
  double limit = 0;
  const auto seconds = [&](void (*becomeDaemon)()) {
    auto& report = *new (shared) TDaemonReport;
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) MeasureBecomingDaemon(becomeDaemon, report);
    ::waitpid(child, nullptr, 0);
    if (!Eventually([&] { return report.Written.load(); })) std::abort();
    limit = report.Limit;
    return report.Microseconds / 1e6;
  };
  ReportTimes(state, Compare(
                         state, [&] { return seconds(&BecomeDaemon); },
                         [&] { return seconds(&BecomeBareDaemon); }));
  ::munmap(shared, sizeof(TDaemonReport));
  state.SetLabel("at a descriptor limit of " + std::to_string(static_cast<long>(limit)));
}
BENCHMARK(BecomingDaemon)->UseManualTime()->Iterations(Rounds(21));

}  // namespace
}  // namespace guardian
