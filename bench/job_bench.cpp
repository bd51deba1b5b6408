// The daemon's per-job steps, executed in this process.
//
// BM_CreateJob: CreateJob (with ParseArgs for the job and for its follow-up)
//   of a typical submission: eight options, the executable with six
//   arguments, one follow-up job. The job is destroyed outside the timing.
// BM_EntryPool: fetch and release with the daemon's full pool of 262143
//   numbers; batches of 256 fetches, then the same numbers released, so each
//   release checks a number against a nearly full pool. Per operation.
// BM_Launch: runjob of /bin/true with "-d" and a queue name, from the call to
//   the moment the child has executed the program (its /proc comm turns
//   "true", polled every 20 microseconds so that the poll does not take the
//   CPU from the child); return_* is runjob's own return. The child is
//   reaped outside the timing.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "bench_percentiles.h"
#include "cm_common.h"
#include "jobs/launch.h"
#include "kd_test_support.h"
#include "model/elements.h"
#include "model/entry_pool.h"
#include "model/job.h"
#include "model/job_grammar.h"
#include "model/records.h"
#include "model/triple.h"
#include "protocol/request.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kTypicalSubmission =
    "-j nightly_backup -p 5/2 -S 30/600 -T now -W 2099-01-01_00:00 -E 2099-12-31_23:59 -R 3:2:60 -G tape=2 "
    "/bin/true --level full --target \"/srv/backup set\" -v 3 -- -j nightly_report /bin/true report";

double Micros(Clock::time_point a, Clock::time_point b) {
  return std::chrono::duration<double, std::micro>(b - a).count();
}

void BM_CreateJob(benchmark::State& state) {
  kdtest::TestInstance inst;
  InitRootLists();
  Query templ;
  templ.function = queue_submit;
  CopyCut(templ.szCmdArgs, kTypicalSubmission);
  std::vector<double> us;
  for (auto _ : state) {
    Query q = templ;
    char error[1024] = {};
    const auto t0 = Clock::now();
    Job* job = CreateJob(&q, nullptr, error, sizeof error);
    const auto t1 = Clock::now();
    if (job == nullptr || job->pFollowUpJob == nullptr || job->arg_count != 6) {
      state.SkipWithError(error[0] != '\0' ? error : "job not created as expected");
      break;
    }
    DestroyJob(job->pFollowUpJob);
    DestroyJob(job);
    state.SetIterationTime(Micros(t0, t1) / 1e6);
    us.push_back(Micros(t0, t1));
  }
  ReportPercentiles(state, us);
  RemoveList(&gGlobalResources);
}
BENCHMARK(BM_CreateJob)->UseManualTime()->Iterations(20000)->Unit(benchmark::kMicrosecond);

void BM_EntryPool(benchmark::State& state) {
  constexpr int kBatch = 256;
  QmEntry_destroy();
  QmEntry_init(0x40000);
  // Hand out the fresh numbers once, so that every number comes from and
  // goes back to the released part of the pool.
  std::vector<int32_t> numbers;
  numbers.reserve(262143);
  for (int32_t n; (n = QmEntry_fetch()) > 0;) numbers.push_back(n);
  for (int32_t n : numbers) QmEntry_release(n);
  std::vector<double> fetch_us;
  std::vector<double> release_us;
  int32_t batch[kBatch];
  for (auto _ : state) {
    const auto t0 = Clock::now();
    for (int32_t& n : batch) n = QmEntry_fetch();
    const auto t1 = Clock::now();
    for (const int32_t n : batch) QmEntry_release(n);
    const auto t2 = Clock::now();
    if (batch[kBatch - 1] <= 0 || QmEntry_size() != 262143) {
      state.SkipWithError("pool lost numbers");
      break;
    }
    state.SetIterationTime(std::chrono::duration<double>(t2 - t0).count() / (2 * kBatch));
    fetch_us.push_back(Micros(t0, t1) / kBatch);
    release_us.push_back(Micros(t1, t2) / kBatch);
  }
  ReportPercentiles(state, fetch_us, "fetch_");
  ReportPercentiles(state, release_us, "release_");
  QmEntry_destroy();
}
BENCHMARK(BM_EntryPool)->UseManualTime()->Iterations(2000)->Unit(benchmark::kNanosecond);

/// Whether /proc/<pid>/comm reads name (the program after exec).
bool CommIs(pid_t pid, const char* name) {
  char path[64];
  std::snprintf(path, sizeof path, "/proc/%d/comm", static_cast<int>(pid));
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buf[32] = {};
  const ssize_t n = read(fd, buf, sizeof buf - 1);
  close(fd);
  return n > 0 && std::strncmp(buf, name, std::strlen(name)) == 0 && buf[std::strlen(name)] == '\n';
}

void BM_Launch(benchmark::State& state) {
  kdtest::TestInstance inst;
  Job* job = new Job{};
  job->file_name = "/bin/true";
  job->EntryNumb = 1;
  if (jobAddArg_str(job, "-d") != 0 || jobAddArg_str(job, "q1") != 0) {
    state.SkipWithError("no arguments");
    DestroyJob(job);
    return;
  }
  std::vector<double> us;
  std::vector<double> ret_us;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    const pid_t pid = runjob(job);
    const auto returned = Clock::now();
    if (pid <= 0) {
      state.SkipWithError("runjob failed");
      break;
    }
    const auto deadline = t0 + std::chrono::seconds(5);
    while (!CommIs(pid, "true") && Clock::now() < deadline) usleep(20);
    const auto t1 = Clock::now();
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (t1 >= deadline || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      state.SkipWithError("/bin/true not executed");
      break;
    }
    state.SetIterationTime(Micros(t0, t1) / 1e6);
    us.push_back(Micros(t0, t1));
    ret_us.push_back(Micros(t0, returned));
  }
  ReportPercentiles(state, us);
  ReportPercentiles(state, ret_us, "return_");
  job->EntryNumb = 0;
  DestroyJob(job);
}
BENCHMARK(BM_Launch)->UseManualTime()->Iterations(2000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
