// Configuration and global-variable reads: every i_READ_INI resolves the
// bootstrap file and scans kd.ini anew, every glbv read opens its file.
#include <benchmark/benchmark.h>

#include <string>

#include "cm_hal_unix.h"
#include "cm_kernel.h"
#include "kd_test_support.h"

namespace {

// A kd.ini of 300 lines: "[Pathes]" first, then sections of ten keys, the
// wanted key in the last section.
std::string LargeIni() {
  std::string extra;
  int lines = 8;  // "[Pathes]" and its seven keys
  for (int s = 0; lines < 296; ++s) {
    extra += "[Section" + std::to_string(s) + "]\n";
    ++lines;
    extra += "# comment line of section " + std::to_string(s) + "\n";
    ++lines;
    for (int k = 0; k < 10 && lines < 296; ++k, ++lines)
      extra += "key_" + std::to_string(k) + "=/some/value/of/moderate/length/" + std::to_string(s * 10 + k) + "\n";
  }
  extra += "[Last]\nfiller=x\nwanted_key=/the/value/\nafter=y\n";
  return extra;
}

void BM_ReadIniKeyNearEndOf300Lines(benchmark::State& state) {
  kdtest::TestInstance inst;
  inst.write_kd_ini(LargeIni());
  char value[1024];
  char err[512];
  for (auto _ : state) {
    if (!i_READ_INI(nullptr, "[Last]", "wanted_key", value, sizeof value, err, sizeof err)) {
      state.SkipWithError(err);
      break;
    }
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_ReadIniKeyNearEndOf300Lines)->Repetitions(9)->ReportAggregatesOnly(true);

void BM_GlbvReadShortVariable(benchmark::State& state) {
  kdtest::TestInstance inst;
  inst.write_glbv("gv_daylbl", "20261122");
  char name[32] = "gv_daylbl";
  char buffer[512];
  glbv('r', name, buffer);  // the directory is read once per process
  for (auto _ : state) {
    glbv('r', name, buffer);
    if (buffer[0] == '?') {
      state.SkipWithError(buffer);
      break;
    }
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_GlbvReadShortVariable)->Repetitions(9)->ReportAggregatesOnly(true);

void BM_GlbvWriteShortVariable(benchmark::State& state) {
  kdtest::TestInstance inst;
  char name[32] = "gv_date";
  char buffer[512] = "2026-11-22";
  for (auto _ : state) {
    glbv('w', name, buffer);
    benchmark::DoNotOptimize(buffer);
  }
}
BENCHMARK(BM_GlbvWriteShortVariable)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
