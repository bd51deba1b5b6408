// Jobs through the real daemon, each benchmark against a fresh kd_qm_main -d
// on a temporary instance, submitted through the client library from this
// one process.
//
// BM_Throughput: 1,000 submissions of /bin/true into a queue with job limit
//   2, each answered before the next is sent; from the first submit until
//   the exit log holds the end of the last job (trace level 1, so that the
//   exit log is written). jobs_per_s over the whole run.
// BM_QueuedJobsMemory: 10,000 jobs of three arguments each, held back by a
//   start time in 2099, then the daemon's resident memory (VmRSS).
#include <benchmark/benchmark.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "client/qm_lib.h"
#include "daemon_fixture.h"
#include "kd_test_support.h"
#include "protocol/request.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

void ignore_alarm(int) {}

/// One request through the client library; the return digit followed by the
/// answer text, or "" on failure.
std::string Request(int mode, const std::string& arguments) {
  if (qm_lib_send_cmd(mode, arguments.c_str(), ignore_alarm, 0) != 0) return "";
  std::string text;
  char buf[512];
  int n;
  while ((n = qm_lib_get_answer_buff(buf, sizeof buf - 1, 0)) > 0) text.append(buf, static_cast<std::size_t>(n));
  const int code = qm_lib_close_answer(0);
  return n < 0 || code < 0 ? "" : std::to_string(code) + text;
}

/// kd_qm_main -d on a temporary instance with the given trace level; shut
/// down with its answer writers and jobs at the end.
class BenchDaemon {
 public:
  explicit BenchDaemon(int trace_level) {
    inst_.write_debug_ini("KD_QM_MAIN=" + std::to_string(trace_level) + "\n");
    if (!proc_.Start({kdtest::BinaryPath("kd_qm_main"), "-d"}, inst_.root() + "/daemon.out",
                     inst_.root() + "/daemon.err", true))
      return;
    const std::string pipe = inst_.qm() + "com/to_qm_pipe";
    if (!kdtest::WaitFor([&] { return kdtest::Exists(pipe) || !proc_.Running(); }, 15s)) return;
    if (!proc_.Running() || qm_lib_init(nullptr, nullptr, 0) != 0) return;
    ready_ = kdtest::WaitFor([] { return Request(process_signal, "").rfind("0", 0) == 0; }, 10s);
  }
  ~BenchDaemon() {
    if (proc_.Running()) {
      Request(shut_down, "");
      if (!proc_.WaitExit(10s)) {
        proc_.Signal(SIGTERM);
        proc_.WaitExit(5s);
      }
    }
    proc_.SignalGroup(SIGKILL);
  }
  bool ready() const { return ready_; }
  pid_t pid() const { return proc_.pid(); }
  const kdtest::TestInstance& instance() const { return inst_; }

 private:
  kdtest::TestInstance inst_;
  kdtest::ChildProcess proc_;
  bool ready_ = false;
};

/// Resident memory of a process in KiB (VmRSS), or -1.
long RssKib(pid_t pid) {
  const std::string status = kdtest::ReadFile("/proc/" + std::to_string(pid) + "/status");
  const std::size_t at = status.find("VmRSS:");
  return at == std::string::npos ? -1 : std::strtol(status.c_str() + at + 6, nullptr, 10);
}

/// Occurrences of text in every exit log of the instance.
int CountInExitLogs(const kdtest::TestInstance& inst, const std::string& text) {
  int count = 0;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(inst.lgc(), ec)) {
    if (entry.path().filename().string().rfind("kd_qm_exit_", 0) != 0) continue;
    const std::string log = kdtest::ReadFile(entry.path().string());
    for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + text.size())) ++count;
  }
  return count;
}

void BM_Throughput(benchmark::State& state) {
  constexpr int kJobs = 1000;
  for (auto _ : state) {
    BenchDaemon daemon(1);
    if (!daemon.ready() || Request(queue_init, "q1 2") != "0STATUS=SUCCESS MSG=Queue initialised\n") {
      state.SkipWithError("daemon not running");
      return;
    }
    const auto t0 = Clock::now();
    for (int i = 0; i < kJobs; ++i) {
      if (Request(queue_submit, "q1 -j t" + std::to_string(i) + " /bin/true").rfind("0STATUS=SUCCESS", 0) != 0) {
        state.SkipWithError("a submission was not answered Ok");
        return;
      }
    }
    const auto t1 = Clock::now();
    const bool all_ended = kdtest::WaitFor(
        [&] { return CountInExitLogs(daemon.instance(), "Job exited with status [exit code: 0]") >= kJobs; }, 120s);
    const auto t2 = Clock::now();
    if (!all_ended) {
      state.SkipWithError("not every job ended");
      return;
    }
    const double seconds = std::chrono::duration<double>(t2 - t0).count();
    state.SetIterationTime(seconds);
    state.counters["jobs_per_s"] = kJobs / seconds;
    state.counters["submit_phase_s"] = std::chrono::duration<double>(t1 - t0).count();
  }
}
BENCHMARK(BM_Throughput)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_QueuedJobsMemory(benchmark::State& state) {
  constexpr int kJobs = 10000;
  for (auto _ : state) {
    BenchDaemon daemon(0);
    if (!daemon.ready() || Request(queue_init, "q1 2") != "0STATUS=SUCCESS MSG=Queue initialised\n") {
      state.SkipWithError("daemon not running");
      return;
    }
    state.counters["rss_before_kib"] = static_cast<double>(RssKib(daemon.pid()));
    const auto t0 = Clock::now();
    for (int i = 0; i < kJobs; ++i) {
      const std::string job =
          "q1 -T 2099-01-01_00:00 -j held" + std::to_string(i) + " /bin/true alpha beta " + std::to_string(i);
      if (Request(queue_submit, job).rfind("0STATUS=SUCCESS", 0) != 0) {
        state.SkipWithError("a submission was not answered Ok");
        return;
      }
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
    const std::string status = Request(queue_sho_status, "q1");
    if (status.find("holding=10000") == std::string::npos) {
      state.SkipWithError("jobs not held");
      return;
    }
    state.counters["rss_kib"] = static_cast<double>(RssKib(daemon.pid()));
  }
}
BENCHMARK(BM_QueuedJobsMemory)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
