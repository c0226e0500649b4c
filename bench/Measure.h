#pragma once

#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <vector>

namespace guardian {

// Whether the benchmarks are only to show that they still work: GUARDIAN_BENCH_SHORT is set.
inline bool IsTryOut() { return std::getenv("GUARDIAN_BENCH_SHORT") != nullptr; }

// A count of rounds, messages or the like: the full one, or the small one of a try-out.
inline int Rounds(int full, int tryOut = 1) { return IsTryOut() ? tryOut : full; }

// A way to measure work, in seconds.
using TTime = double(const std::function<void()>& work);

// The seconds that the work takes.
inline double Seconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The seconds of processor time that the work takes the calling thread: for work that neither waits
// nor has other threads work for it.
inline double ProcessorSeconds(const std::function<void()>& work) {
  const auto now = [] {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
  };
  const double start = now();
  work();
  return now() - start;
}

// Microseconds between two moments.
inline double Microseconds(std::chrono::steady_clock::time_point from,
                           std::chrono::steady_clock::time_point to) {
  return std::chrono::duration<double, std::micro>(to - from).count();
}

inline double Median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

// Medians of several rounds.
struct TComparison {
  double Ours = 0;
  double Bare = 0;
  double OursPerBare = 0;  // Of the rounds' own ratios: what slows a round down slows both.
};

// Measures ours and its baseline in turns, once each iteration, and the one first that came second
// before. What the two measures return is compared, in seconds or in whatever both agree upon.
inline TComparison Compare(benchmark::State& state, const std::function<double()>& ours,
                           const std::function<double()>& bare) {
  std::vector<double> oursOf;
  std::vector<double> bareOf;
  std::vector<double> ratios;
  for ([[maybe_unused]] auto _ : state) {
    const bool oursFirst = ratios.size() % 2 == 1;
    if (oursFirst) oursOf.push_back(ours());
    bareOf.push_back(bare());
    if (!oursFirst) oursOf.push_back(ours());
    ratios.push_back(oursOf.back() / bareOf.back());
    state.SetIterationTime(oursOf.back());
  }
  return {Median(oursOf), Median(bareOf), Median(ratios)};
}

// Reports the rates of both, whose seconds for so many items were compared, and the rates' ratio.
inline void ReportRates(benchmark::State& state, const TComparison& seconds, double items = 1) {
  state.counters["rate"] = items / seconds.Ours;
  state.counters["bare_rate"] = items / seconds.Bare;
  state.counters["ratio"] = 1 / seconds.OursPerBare;
}

// Runs the work and its baseline, each of which handles so many items, and reports the rates of
// both and their ratio, by Seconds or by ProcessorSeconds.
inline void CompareRates(benchmark::State& state, double items, const std::function<void()>& work,
                         const std::function<void()>& baseline, TTime* time = &Seconds) {
  const TComparison seconds = Compare(
      state, [&] { return time(work); }, [&] { return time(baseline); });
  ReportRates(state, seconds, items);
}

// Reports the microseconds of both, which were measured in seconds, and the ratio of the times.
inline void ReportTimes(benchmark::State& state, const TComparison& seconds) {
  state.counters["us"] = seconds.Ours * 1e6;
  state.counters["bare_us"] = seconds.Bare * 1e6;
  state.counters["ratio"] = seconds.OursPerBare;
}

}  // namespace guardian
