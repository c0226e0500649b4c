#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <vector>

namespace guardian {

// The seconds that the work takes.
inline double Seconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
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

// Runs the work and its baseline in turns, once each iteration, and reports the rates of both and
// their ratio, each from the median time.
inline void CompareRates(benchmark::State& state, double items, const std::function<void()>& work,
                         const std::function<void()>& baseline) {
  std::vector<double> ours;
  std::vector<double> bare;
  for ([[maybe_unused]] auto _ : state) {
    bare.push_back(Seconds(baseline));
    ours.push_back(Seconds(work));
    state.SetIterationTime(ours.back());
  }
  state.counters["rate"] = items / Median(ours);
  state.counters["bare_rate"] = items / Median(bare);
  state.counters["ratio"] = Median(bare) / Median(ours);
}

}  // namespace guardian
