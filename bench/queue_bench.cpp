// Queue listings and queue creation at scale.
//
// BM_ShowAllAtClient: the real daemon (trace level 0) holds 1,000 triples of
//   four resource queues each; one raw client asks queue_sho "*" and reads
//   the whole answer. Time: sending the line to the close of the answer.
// BM_ShowAllInDaemon: the same listing executed in this process: the root
//   lists are built here (gszQmDir points at a temporary instance) and
//   iEXEC_REQUEST is timed alone. That is the daemon's own share of the
//   request: splitting, the search for the first match and the fork; the
//   child that writes the listing runs on afterwards and is drained and
//   reaped outside the timing.
// BM_Create10000: 10,000 queue_init requests one after another against a
//   fresh daemon, each answered before the next is sent, as kd_qm does it:
//   from one client, and from four clients at once. Besides the rate, the
//   daemon's resident size after the last one (every answer writer is a
//   fork, whose cost grows with it).
// BM_InitInDaemon: the same 10,000 queue_init requests executed in this
//   process; iEXEC_REQUEST alone is timed (the daemon's share, including the
//   fork of the answer writer), the answer is read and the writer reaped
//   outside the timing. Its inverse bounds what the daemon can serve.
#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench_percentiles.h"
#include "cm_common.h"
#include "daemon/dispatch.h"
#include "daemon_fixture.h"
#include "jobs/admin_queue.h"
#include "jobs/removal.h"
#include "kd_test_support.h"
#include "model/list.h"
#include "model/records.h"
#include "model/triple.h"
#include "protocol/globals.h"
#include "protocol/request.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kTriples = 1000;
constexpr const char* kFourResources = "a/b/c/d";
const std::string kListingEnd = "STATUS=SUCCESS MSG=ok\n";

/// kd_qm_main -d on a temporary instance; shut down with its answer writers at the end.
class BenchDaemon {
 public:
  BenchDaemon() {
    if (!proc_.Start({kdtest::BinaryPath("kd_qm_main"), "-d"}, inst_.root() + "/daemon.out",
                     inst_.root() + "/daemon.err", true))
      return;
    ready_ = kdtest::WaitFor(
        [&] {
          if (!proc_.Running()) return true;
          kdtest::RawClient probe(qm_dir(), 1);
          return probe.Ask(process_signal, "", 1s).complete;
        },
        15s) &&
             proc_.Running();
  }
  ~BenchDaemon() {
    if (proc_.Running()) {
      kdtest::RawClient client(qm_dir(), 2);
      client.Ask(shut_down, "", 30s);
      if (!proc_.WaitExit(10s)) {
        proc_.Signal(SIGTERM);
        proc_.WaitExit(5s);
      }
    }
    proc_.SignalGroup(SIGKILL);
  }
  bool ready() const { return ready_; }
  std::string qm_dir() const { return inst_.qm(); }
  /// Resident size of the daemon in kB, from /proc; 0 when unreadable.
  long rss_kb() const {
    std::FILE* f = std::fopen(("/proc/" + std::to_string(proc_.pid()) + "/status").c_str(), "r");
    if (f == nullptr) return 0;
    char line[256];
    long kb = 0;
    while (std::fgets(line, sizeof line, f) != nullptr)
      if (std::sscanf(line, "VmRSS: %ld", &kb) == 1) break;
    std::fclose(f);
    return kb;
  }

 private:
  kdtest::TestInstance inst_;
  kdtest::ChildProcess proc_;
  bool ready_ = false;
};

bool ListingComplete(const kdtest::RawAnswer& a) {
  return a.complete && a.text.size() > kListingEnd.size() &&
         a.text.compare(a.text.size() - kListingEnd.size(), kListingEnd.size(), kListingEnd) == 0;
}

void BM_ShowAllAtClient(benchmark::State& state) {
  BenchDaemon daemon;
  if (!daemon.ready()) {
    state.SkipWithError("daemon not running");
    return;
  }
  kdtest::RawClient client(daemon.qm_dir(), 100);
  for (int i = 0; i < kTriples; ++i) {
    if (client.Ask(queue_init, "t" + std::to_string(i) + "/" + kFourResources + " 2").text.rfind("0", 0) != 0) {
      state.SkipWithError("queue_init not answered Ok");
      return;
    }
  }
  std::vector<double> us;
  std::size_t bytes = 0;
  for (auto _ : state) {
    const auto t0 = Clock::now();
    const kdtest::RawAnswer a = client.Ask(queue_sho, "*", 10s);
    const auto t1 = Clock::now();
    if (!ListingComplete(a)) {
      state.SkipWithError("listing incomplete");
      break;
    }
    bytes = a.text.size();
    const double s = std::chrono::duration<double>(t1 - t0).count();
    state.SetIterationTime(s);
    us.push_back(s * 1e6);
  }
  ReportPercentiles(state, us, "");
  state.counters["answer_bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_ShowAllAtClient)->UseManualTime()->Iterations(50)->Unit(benchmark::kMillisecond);

void BM_ShowAllInDaemon(benchmark::State& state) {
  kdtest::TestInstance inst;
  CopyCut(gszQmDir, inst.qm());
  InitRootLists();
  if (InitQMAdminQueue() != 0) {
    state.SkipWithError("no admin queue");
    return;
  }
  QueueJobLimits limits;
  limits.iJobLimit = 2;
  for (int i = 0; i < kTriples; ++i) {
    bool failed = false;
    if (CreateQueTriple("t" + std::to_string(i), kFourResources, nullptr, &limits, &failed) == nullptr || failed) {
      state.SkipWithError("triple not created");
      return;
    }
  }
  kdtest::RawClient client(inst.qm(), 200);
  const std::string line = std::to_string(queue_sho) + " 200 *";
  std::vector<double> exec_us;
  std::vector<double> whole_us;
  for (auto _ : state) {
    if (!client.CreatePipe() || !client.OpenForAnswer()) {
      state.SkipWithError("answer pipe");
      break;
    }
    const auto t0 = Clock::now();
    const int rc = iEXEC_REQUEST(line.c_str());
    const auto t1 = Clock::now();
    const kdtest::RawAnswer a = client.ReadAnswer(10s);
    const auto t2 = Clock::now();
    client.CloseAnswer();
    int status = 0;
    while (waitpid(-1, &status, 0) < 0 && errno == EINTR) {
    }
    if (rc != 0 || !ListingComplete(a)) {
      state.SkipWithError("listing incomplete");
      break;
    }
    const double s = std::chrono::duration<double>(t1 - t0).count();
    state.SetIterationTime(s);
    exec_us.push_back(s * 1e6);
    whole_us.push_back(std::chrono::duration<double>(t2 - t0).count() * 1e6);
  }
  ReportPercentiles(state, exec_us, "daemon_");
  ReportPercentiles(state, whole_us, "answer_");
  for (QueueTriple* triple : Elements<QueueTriple>(Root))
    if (triple != gAdminQueue) RemoveQueTriple(&Root, triple);
}
BENCHMARK(BM_ShowAllInDaemon)->UseManualTime()->Iterations(50)->Unit(benchmark::kMicrosecond);

void BM_InitInDaemon(benchmark::State& state) {
  kdtest::TestInstance inst;
  CopyCut(gszQmDir, inst.qm());
  InitRootLists();
  kdtest::RawClient client(inst.qm(), 500);
  std::vector<double> us;
  int n = 0;
  for (auto _ : state) {
    if (!client.CreatePipe() || !client.OpenForAnswer()) {
      state.SkipWithError("answer pipe");
      break;
    }
    const std::string line = std::to_string(queue_init) + " 500 i" + std::to_string(n++);
    const auto t0 = Clock::now();
    const int rc = iEXEC_REQUEST(line.c_str());
    const auto t1 = Clock::now();
    const kdtest::RawAnswer a = client.ReadAnswer(10s);
    client.CloseAnswer();
    int status = 0;
    while (waitpid(-1, &status, 0) < 0 && errno == EINTR) {
    }
    if (rc != 0 || a.text != "0STATUS=SUCCESS MSG=Queue initialised\n") {
      state.SkipWithError("queue_init not answered Ok");
      break;
    }
    const double s = std::chrono::duration<double>(t1 - t0).count();
    state.SetIterationTime(s);
    us.push_back(s * 1e6);
  }
  ReportPercentiles(state, us, "daemon_");
  double sum = 0;
  for (double v : us) sum += v;
  if (sum > 0) state.counters["daemon_requests_per_s"] = static_cast<double>(us.size()) * 1e6 / sum;
  for (QueueTriple* triple : Elements<QueueTriple>(Root)) RemoveQueTriple(&Root, triple);
}
BENCHMARK(BM_InitInDaemon)->UseManualTime()->Iterations(10000)->Unit(benchmark::kMicrosecond);

/// Creates count triples named <prefix><n> from one raw client; the number answered Ok.
int CreateTriples(const std::string& qm_dir, long id, const std::string& prefix, int count) {
  kdtest::RawClient client(qm_dir, id);
  int ok = 0;
  for (int i = 0; i < count; ++i)
    ok += client.Ask(queue_init, prefix + std::to_string(i), 10s).text == "0STATUS=SUCCESS MSG=Queue initialised\n";
  return ok;
}

void BM_Create10000(benchmark::State& state) {
  const int clients = static_cast<int>(state.range(0));
  constexpr int kCount = 10000;
  double created = 0;
  double seconds = 0;
  for (auto _ : state) {
    BenchDaemon daemon;
    if (!daemon.ready()) {
      state.SkipWithError("daemon not running");
      return;
    }
    const auto t0 = Clock::now();
    int ok = 0;
    if (clients == 1) {
      ok = CreateTriples(daemon.qm_dir(), 300, "c", kCount);
    } else {
      std::vector<pid_t> kids;
      for (int k = 0; k < clients; ++k) {
        const pid_t pid = fork();
        if (pid == 0) {
          const int per = kCount / clients;
          _exit(CreateTriples(daemon.qm_dir(), 400 + k, "c" + std::to_string(k) + "_", per) == per ? 0 : 1);
        }
        if (pid > 0) kids.push_back(pid);
      }
      int failed = clients - static_cast<int>(kids.size());
      for (const pid_t pid : kids) {
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failed;
      }
      ok = failed == 0 ? kCount : 0;
    }
    const double s = std::chrono::duration<double>(Clock::now() - t0).count();
    state.counters["daemon_rss_kB"] = static_cast<double>(daemon.rss_kb());
    if (ok != kCount) {
      state.SkipWithError("a queue_init was not answered Ok");
      return;
    }
    state.SetIterationTime(s);
    created += ok;
    seconds += s;
  }
  state.counters["requests_per_s"] = created / seconds;
}
BENCHMARK(BM_Create10000)->Arg(1)->Arg(4)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
