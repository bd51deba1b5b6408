// Percentile counters shared by the benchmarks.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

/// Sets prefix + "median_us", "p99_us" and "max_us" from samples in microseconds.
inline void ReportPercentiles(benchmark::State& state, std::vector<double> us, const std::string& prefix = "") {
  if (us.empty()) return;
  std::sort(us.begin(), us.end());
  auto at = [&](double q) { return us[std::min(us.size() - 1, static_cast<std::size_t>(q * us.size()))]; };
  state.counters[prefix + "median_us"] = at(0.50);
  state.counters[prefix + "p99_us"] = at(0.99);
  state.counters[prefix + "max_us"] = us.back();
}
