// Cost of the trace log: a message above the level (dropped unformatted)
// and a written line (formatted, appended and flushed).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "cm_common.h"
#include "cm_trace.h"
#include "kd_test_support.h"

namespace {

// strLocalLog writing to a file of a temporary directory at the given level.
class LocalLog {
 public:
  explicit LocalLog(int level) {
    trace_reset_for_tests();
    CopyCut(strLocalLog.szLogFile, dir_.file("bench.log"));
    strLocalLog.iLogLevel = level;
  }
  ~LocalLog() { trace_reset_for_tests(); }

 private:
  kdtest::TempDir dir_;
};

void BM_TraceAboveLevel(benchmark::State& state) {
  LocalLog log(1);
  int i = 0;
  for (auto _ : state) {
    trace("%l3 not written: entry %d in queue %s", ++i, "default");
    benchmark::ClobberMemory();
  }
}
BENCHMARK(BM_TraceAboveLevel)->Repetitions(5)->ReportAggregatesOnly(true);

void BM_TraceWrittenLine(benchmark::State& state) {
  LocalLog log(2);
  int i = 0;
  for (auto _ : state) trace("%l2 [CTX:%d] job started in queue %s", ++i, "default");
}
BENCHMARK(BM_TraceWrittenLine)->Repetitions(5)->ReportAggregatesOnly(true);

// Times every call on its own and reports the median as a counter.
void BM_TraceWrittenLineMedian(benchmark::State& state) {
  LocalLog log(2);
  std::vector<double> ns;
  ns.reserve(1 << 20);
  int i = 0;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    trace("%l2 [CTX:%d] job started in queue %s", ++i, "default");
    const auto t1 = std::chrono::steady_clock::now();
    if (ns.size() < ns.capacity()) ns.push_back(std::chrono::duration<double, std::nano>(t1 - t0).count());
  }
  if (!ns.empty()) {
    std::nth_element(ns.begin(), ns.begin() + static_cast<std::ptrdiff_t>(ns.size() / 2), ns.end());
    state.counters["median_ns"] = ns[ns.size() / 2];
  }
}
BENCHMARK(BM_TraceWrittenLineMedian);

void BM_WriteTraceIndented(benchmark::State& state) {
  LocalLog log(2);
  for (auto _ : state) {
    WRITE_TRACE(&strLocalLog, "+++ %s", "ProcessQueTriple");
    WRITE_TRACE(&strLocalLog, "--- %s", "ProcessQueTriple");
  }
}
BENCHMARK(BM_WriteTraceIndented);

}  // namespace

BENCHMARK_MAIN();
