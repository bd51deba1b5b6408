// The scheduling pass, executed in this process over triples whose job
// limit is taken, so that the pending jobs cannot start and the pass only
// looks at them.
//
// BM_PassOneTriple: one triple with 10,000 pending jobs; ProcessQueTriple.
// BM_PassManyTriples: 100 triples with 100 pending jobs each;
//   ProcessAllQueTriples.
// The jobs are built by CreateJob from "-j pN -W ... -E ... /bin/true a b c"
// (latest start and end time set, far in the future), so that every expiry
// check has a time to compare.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "bench_percentiles.h"
#include "cm_common.h"
#include "jobs/admin_queue.h"
#include "jobs/removal.h"
#include "kd_test_support.h"
#include "model/job.h"
#include "model/job_grammar.h"
#include "model/list.h"
#include "model/records.h"
#include "model/triple.h"
#include "protocol/request.h"
#include "sched/pass.h"

namespace {

using Clock = std::chrono::steady_clock;

/// A triple "<name>" with one resource queue whose only place is taken by a
/// job without a process, and pending jobs behind it. Null on failure.
QueueTriple* FullTriple(const std::string& name, int pending) {
  QueueJobLimits limits;
  limits.iJobLimit = 1;
  bool failed = false;
  QueueTriple* triple = CreateQueTriple(name, "r", nullptr, &limits, &failed);
  if (triple == nullptr || failed) return nullptr;
  Queue* queue = ElementOf<Queue>(triple->ExecQueues.Head);
  auto* holder = new Job{};
  holder->eJobState = job_running;
  AddTail(&queue->ListOfJobs, NodeOf(holder));
  queue->current_job_limit = 0;
  queue->eState = running;
  for (int i = 0; i < pending; ++i) {
    Query q;
    q.function = queue_submit;
    CopyCut(q.szCmdArgs, "-j p" + std::to_string(i) + " -W 2099-01-01_00:00 -E 2099-12-31_23:59 /bin/true a b c");
    char error[1024] = {};
    Job* job = CreateJob(&q, nullptr, error, sizeof error);
    if (job == nullptr) return nullptr;
    job->EntryNumb = i + 1;
    SpecifyJobResource(job);
    AddTail(&triple->PendingQue, NodeOf(job));
  }
  return triple;
}

void RemoveAll() {
  for (QueueTriple* triple : Elements<QueueTriple>(Root)) {
    if (triple == gAdminQueue) continue;
    // Code 0: removed without the run that reports a job that never started.
    for (Job* job : Elements<Job>(triple->PendingQue)) {
      job->EntryNumb = 0;
      job->iPendingStateExitCode = 0;
    }
    RemoveQueTriple(&Root, triple);
  }
}

void RunPasses(benchmark::State& state, int triples, int pending) {
  kdtest::TestInstance inst;
  InitRootLists();
  if (gAdminQueue == nullptr && InitQMAdminQueue() != 0) {
    state.SkipWithError("no admin queue");
    return;
  }
  for (int i = 0; i < triples; ++i) {
    if (FullTriple("t" + std::to_string(i), pending) == nullptr) {
      state.SkipWithError("triple not built");
      RemoveAll();
      return;
    }
  }
  QueueTriple* first = nullptr;
  for (QueueTriple* triple : Elements<QueueTriple>(Root))
    if (first == nullptr && triple != gAdminQueue) first = triple;
  std::vector<double> us;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    if (triples == 1)
      ProcessQueTriple(first);
    else
      ProcessAllQueTriples();
    const auto t1 = Clock::now();
    const double s = std::chrono::duration<double>(t1 - t0).count();
    state.SetIterationTime(s);
    us.push_back(s * 1e6);
  }
  ReportPercentiles(state, us);
  state.counters["pending_after"] = CountList(&first->PendingQue);
  RemoveAll();
}

void BM_PassOneTriple(benchmark::State& state) { RunPasses(state, 1, 10000); }
BENCHMARK(BM_PassOneTriple)->UseManualTime()->Iterations(500)->Unit(benchmark::kMicrosecond);

void BM_PassManyTriples(benchmark::State& state) { RunPasses(state, 100, 100); }
BENCHMARK(BM_PassManyTriples)->UseManualTime()->Iterations(500)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
