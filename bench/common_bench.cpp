#include <benchmark/benchmark.h>

#include "cm_common.h"

static void BM_CopyCut(benchmark::State& state) {
  char dst[1024];
  for (auto _ : state) {
    CopyCut(dst, "kd_qm_main_20261122.log");
    benchmark::DoNotOptimize(dst);
  }
}
BENCHMARK(BM_CopyCut);

BENCHMARK_MAIN();
